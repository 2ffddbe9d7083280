// Command line, start, modes and end of the daemon, seen from the board.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "tests/system/fixture.h"

namespace {

constexpr char USAGE[] =
    "Usage: \n"
    " --interface or -i <device name> \n"
    " --debug or -d                   : running at debug mode \n"
    " --nofork                        : running by foreground \n"
    " --nodhcpc                       : can't set dhcpc \n"
    " --terminate or -t <device name> \n"
    " --nostandalone or -n            : call from super daemon (inetd)\n"
    " --help or -h                    : this usage\n";

using Words = std::vector<std::string>;

}  // namespace

using Core = SystemTest;

TEST_F(Core, OptionsThatServeNothing) {
  struct Row {
    Words options;
    std::string output;
    const char *log = nullptr;
  };
  const Row rows[] = {
      {{"--help"}, USAGE, "startup daemon"},
      {{"-h"}, "bh_servd: invalid option -- 'h'\n" + std::string(USAGE), "startup daemon"},
      {{"--nonsense"}, "bh_servd: unrecognized option '--nonsense'\n" + std::string(USAGE)},
      {{"-i"}, "bh_servd: option requires an argument -- 'i'\n" + std::string(USAGE)},
      {{"-v"}, "bh_servd version 2.37\n"},
      {{"--version", "--nonsense"}, "bh_servd version 2.37\n"},
      {{"-c", "--nodhcpc", "-n"}, "start start_server()\n", "no standalone mode"},
      {{"-d", "-n", "-i", "eth0"},
       "start at debug mode\nstart start_server()\nbh_servd Ver.0.35\n",
       "assigned intreface eth0"},
      {{"-i", "eth7"}, "start start_server()\n", "start_server SIOCSIFHWADDR :No such device"},
      {{"-i", std::string(300, 'x')}, "start start_server()\n", "SIOCSIFHWADDR :No such device"},
      {{"-t", "eth7"}, "", "could not open pid file: No such file or directory"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.options));
    board::WriteFile(board, board::SYSLOG, "");
    Words argv = {"bh_servd"};
    argv.insert(argv.end(), row.options.begin(), row.options.end());
    const board::Result result = OnBoard(argv);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.output, row.output);
    if (row.log != nullptr) {
      EXPECT_TRUE(AwaitSyslog(row.log)) << row.log;
    }
  }
  EXPECT_FALSE(board::Exists(board, "/var/run/bh_servd-eth7.pid"));
}

TEST_F(Core, UnsupportedProductsAreRefused) {
  struct Row {
    std::string product_id;
    const char *output;
    int exit_code;
  };
  const Row rows[] = {
      {"", "invalid productID. ID=0000\n", 255},
      {"0x1001", "invalid productID. ID=1001\n", 255},
      {"4098", "invalid productID. ID=1002\n", 255},
      {"5", "bh_servd version 2.37\n", 0},
      {"0x1003", "bh_servd version 2.37\n", 0},
      {"-1", "bh_servd version 2.37\n", 0},
  };
  board::Remove(board, "/proc/qrconf_info");
  for (const Row &row : rows) {
    SCOPED_TRACE(row.product_id);
    board::WriteFile(board, "/proc/brackenhold", "PRODUCTID=\"" + row.product_id + "\"\n");
    const board::Result result = OnBoard({"bh_servd", "-v"});
    EXPECT_EQ(result.output, row.output);
    EXPECT_EQ(result.exit_code, row.exit_code);
  }
}

TEST_F(Core, ServesUntilItIsTerminated) {
  StartDaemon();
  const pid_t server = ServerPid();
  EXPECT_GT(server, 1);
  EXPECT_EQ(board::ReadFile(board, PID_FILE), std::to_string(server));
  EXPECT_TRUE(board::WaitFor([this] {
    return board::ReadFile(board, board::SYSLOG).find(" bh_servd[") != std::string::npos;
  }));
  ExpectAlive();

  EXPECT_EQ(OnBoard({"bh_servd"}).exit_code, 0);
  EXPECT_TRUE(AwaitSyslog("already runnging server on eth0"));
  ExpectAlive();

  EXPECT_EQ(OnBoard({"bh_servd", "-d", "-t", "eth0"}).output, "stop_daemon() exit kv_servd.\n");
  EXPECT_TRUE(AwaitSyslog("kv_serv_exit() exit kv_servd. code=15"));
  EXPECT_TRUE(AwaitSyslog("Stopping bh_servd that is bound to eth0"));
  const std::string log = Syslog();
  const auto expect_order = [&log](const std::vector<const char *> &lines) {
    size_t position = 0;
    for (const char *line : lines) {
      position = log.find(line, position);
      EXPECT_NE(position, std::string::npos) << line << "\n" << log;
    }
  };
  expect_order({"<30>startup daemon\n", "<30>bh_servd Ver.0.35\n", "<30>standalone mode \n",
                "<24>already runnging server on eth0\n", "<29>DeletePidfile()\n",
                "<24>kv_serv_exit() exit kv_servd. code=15\n"});
  expect_order(
      {"<24>stop_daemon() exit kv_servd.\n", "<30>Stopping bh_servd that is bound to eth0\n"});
  EXPECT_NE(Trace().find("listen device name = eth0\n"), std::string::npos);
  EXPECT_TRUE(board::WaitFor([this] {  // written after the log line
    return Trace().ends_with("kv_serv_exit() exit kv_servd. code=15\n");
  }));
  EXPECT_FALSE(board::Exists(board, PID_FILE));
  ASSERT_TRUE(AwaitServers(0));
  StartDaemon();
  ExpectAlive();
}

TEST_F(Core, HangUpEndsItAndOtherSignalsDoNot) {
  StartDaemon();
  for (const int harmless : {SIGUSR1, SIGCHLD, SIGPIPE}) {
    SCOPED_TRACE(harmless);
    ASSERT_TRUE(board::Kill(board, ServerPid(), harmless));
    ExpectAlive();
  }
  ASSERT_TRUE(board::Kill(board, ServerPid(), SIGHUP));
  EXPECT_TRUE(AwaitSyslog("<24>kv_serv_exit() exit kv_servd. code=1\n"));
  EXPECT_TRUE(board::WaitFor([this] { return !board::Exists(board, PID_FILE); }));
}

TEST_F(Core, SignalsHeldBackByTheStarterReachTheServer) {
  sigset_t held = {};
  sigset_t usual = {};
  sigfillset(&held);
  sigprocmask(SIG_BLOCK, &held, &usual);
  EXPECT_EQ(OnBoard({"bh_servd"}).exit_code, 0);
  sigprocmask(SIG_SETMASK, &usual, nullptr);
  ASSERT_TRUE(AwaitServers(1));
  EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth0"}).exit_code, 0);
  EXPECT_TRUE(AwaitSyslog("<24>kv_serv_exit() exit kv_servd. code=15\n"));
}

TEST_F(Core, CallThatFailsIsLogged) {
  struct Row {
    const char *fault;
    const char *log;
    int exit_code = 0;
    bool serves = false;  // and sends no reply, but the next one
  };
  const Row rows[] = {
      {"bh_servd/socket:1:EMFILE", "start_server could not open socket: Too many open files ", 255},
      {"bh_servd/setsockopt=6:1:EPERM",  // SO_BROADCAST, of the service socket
       "start_server could not set broadcast option to socket: Operation not permitted "},
      {"bh_servd/bind:1:EADDRINUSE",
       "<24>standalone_server > could not bind sock to device Address already in use \n"},
      {.fault = "bh_servd/socket=17:1:EMFILE",  // AF_PACKET
       .log = "<29>start_server could not open socket: Too many open files ",
       .serves = true},
      {.fault = "bh_servd/setsockopt=6:2:EPERM",  // SO_BROADCAST, of the packet socket
       .log = "<29>start_server could not set broadcast option to socket: Operation not permitted ",
       .serves = true},
      {.fault = "bh_servd/bind:2:ENODEV",
       .log = "<29>standalone_server > could not bind sock to device No such device ",
       .serves = true},
      {.fault = "bh_servd/sendto:1:ENOBUFS",
       .log = "<29>cloud not send packet: No buffer space available",
       .serves = true},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.fault);
    board::WriteFile(board, board::SYSLOG, "");
    EXPECT_EQ(OnBoard({"bh_servd"}, row.fault).exit_code, row.exit_code);
    if (row.serves) {
      ASSERT_TRUE(AwaitServers(1));
      wire::Send(client, wire::Request(DISK));
    }
    EXPECT_TRUE(AwaitSyslog(row.log)) << Syslog();
    if (row.serves) {
      EXPECT_EQ(Ask(wire::Request(DISK)).size(), 544U);
      StopDaemon();
    }
  }
}

TEST_F(Core, StartWithClosedStandardDescriptors) {
  for (const char *closed : {"<&- >&- 2>&-", ">&-"}) {
    SCOPED_TRACE(closed);
    EXPECT_EQ(OnBoard({"sh", "-c", std::string("exec bh_servd -d ") + closed}).exit_code, 0);
    ASSERT_TRUE(AwaitServers(1)) << Syslog();
    ExpectAlive();
    const std::string folder = "/run/kernel-proc/" + std::to_string(ServerPid()) + "/fd";
    const std::string files = OnBoard({"sh", "-c", "cd " + folder + "; readlink 0 1 2"}).output;
    EXPECT_EQ(std::count(files.begin(), files.end(), '\n'), 3) << files;
    EXPECT_EQ(files.find("socket:"), std::string::npos) << files;
    EXPECT_EQ(Syslog().find("start start_server()"), std::string::npos) << "it has the trace";
    StopDaemon();
  }
}

TEST_F(Core, ServesWithoutAPidFileWhenItsFolderIsMissing) {
  ASSERT_EQ(OnBoard({"/bin/sh", "-c", "rm -f /var/run && ln -s /nowhere /var/run"}).exit_code, 0);
  StartDaemon();
  EXPECT_TRUE(AwaitSyslog("could not create pid file"));
  ExpectAlive();
}

TEST_F(Core, ForegroundServerTracesToStandardOutput) {
  const pid_t process = board::Spawn(
      board, {.argv = {"sh", "-c", "exec bh_servd -d --nofork -a /var/log/trace > /tmp/out"}});
  ASSERT_TRUE(AwaitServers(1));
  ExpectAlive();
  EXPECT_FALSE(board::Exists(board, PID_FILE));
  kill(process, SIGTERM);
  EXPECT_EQ(board::Wait(process).exit_code, 0);
  const std::string output = board::ReadFile(board, "/tmp/out");
  EXPECT_TRUE(
      output.starts_with("start at debug mode\nstart start_server()\nbh_servd Ver.0.35\n"
                         "listen device name = eth0\n\r\n"))
      << output;
  EXPECT_NE(output.find(": **************************************\r\n-- ACP_PING\r\n"),
            std::string::npos)
      << output;
  EXPECT_EQ(Trace(), "");
}

TEST_F(Core, EndsWhileItWaitsForTheHostName) {
  ASSERT_EQ(OnBoard({"sh", "-c", "ln -sf /run/hostname /bin/hostname"}).exit_code, 0);
  for (const char *words : {"", "echo name\n"}) {  // it waits for output, and for the end
    SCOPED_TRACE(words);
    board::WriteFile(board, "/run/hostname",
                     std::string("#!/bin/sh\n") + words + ">/run/asked\nexec sleep 1000\n");
    ASSERT_EQ(OnBoard({"chmod", "+x", "/run/hostname"}).exit_code, 0);
    board::Remove(board, "/run/asked");
    StartDaemon();
    wire::Send(client, wire::Request(DISCOVER));
    ASSERT_TRUE(board::WaitFor([this] { return board::Exists(board, "/run/asked"); }));
    EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth0"}).exit_code, 0);
    EXPECT_TRUE(AwaitServers(0));
  }
}

TEST_F(Core, EndsWhenNobodyReadsItsTrace) {
  ASSERT_EQ(OnBoard({"mkfifo", "/run/trace"}).exit_code, 0);
  const int reader = board::OpenFile(board, "/run/trace", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const int filler = board::OpenFile(board, "/run/trace", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  for (const bool in_a_request : {false, true}) {
    SCOPED_TRACE(in_a_request);
    char drained[65536];
    while (read(reader, drained, sizeof(drained)) > 0)
      continue;
    ASSERT_EQ(OnBoard({"bh_servd", "-d", "-a", "/run/trace"}).exit_code, 0);
    ASSERT_TRUE(AwaitServers(1));
    const pid_t server = ServerPid();
    while (write(filler, "x", 1) == 1)
      continue;
    if (in_a_request) {
      wire::Send(client, wire::Request(PING));
      EXPECT_TRUE(board::WaitFor([&] { return board::ServiceSockets(board)[0].waiting == 0; }));
      EXPECT_FALSE(wire::Receive(client, wire::milliseconds(100))) << "the trace has room";
    }
    ASSERT_TRUE(board::Kill(board, server, SIGTERM));
    EXPECT_TRUE(AwaitServers(0));
    EXPECT_TRUE(board::WaitFor([&] { return !board::Kill(board, server, 0); }));
    EXPECT_FALSE(board::Exists(board, PID_FILE));
  }
  close(filler);
  close(reader);
}

TEST_F(Core, ForkThatFailsServesInTheForeground) {
  const pid_t process =
      board::Spawn(board, {.argv = {"bh_servd"}, .fail = "bh_servd/fork:1:EAGAIN"});
  ASSERT_TRUE(AwaitServers(1));
  EXPECT_TRUE(AwaitSyslog("could not create child process"));
  EXPECT_FALSE(board::Exists(board, PID_FILE));
  ExpectAlive();
  kill(process, SIGTERM);
  EXPECT_EQ(board::Wait(process).exit_code, 0);
}

TEST_F(Core, OneInstanceAnInterface) {
  board::Config config;
  config.interfaces.push_back({"eth1", "02:0b:4a:00:00:11", "192.168.41.2/24", "192.168.41.1/24"});
  BootBoard(config);
  StartDaemon();
  StartDaemon({"-i", "eth1"}, 2);
  EXPECT_NE(ServerPid("eth0"), ServerPid("eth1"));

  wire::Client second = wire::Open(board.wires[1]);
  const std::string eth0 = "02 0b 4a 00 00 10";
  const std::string eth1 = "02 0b 4a 00 00 11";
  wire::Send(second, wire::Request(PING, {}, eth1));
  const auto reply = wire::Receive(second);
  ASSERT_TRUE(reply);
  EXPECT_EQ(wire::Bytes(reply->begin() + 16, reply->begin() + 22), wire::Hex(eth1));

  EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth1"}).exit_code, 0);
  EXPECT_TRUE(AwaitSyslog("Stopping bh_servd that is bound to eth1"));
  EXPECT_EQ(Ask(wire::Request(PING, {}, eth0)).size(), 32U);
  wire::Close(second);
}
