// Command line, start, modes and end of the daemon, seen from the board.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <tuple>
#include <utility>

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

constexpr char PID_FILE[] = "/var/run/bh_servd-eth0.pid";

using Words = std::vector<std::string>;

}  // namespace

using Core = SystemTest;

TEST_F(Core, OptionsThatServeNothing) {
  // Options, standard output and error, and what syslog has then.
  const std::tuple<Words, std::string, const char *> cases[] = {
      {{"--help"}, USAGE, "startup daemon"},
      {{"-h"}, "bh_servd: invalid option -- 'h'\n" + std::string(USAGE), "startup daemon"},
      {{"--nonsense"}, "bh_servd: unrecognized option '--nonsense'\n" + std::string(USAGE), ""},
      {{"-i"}, "bh_servd: option requires an argument -- 'i'\n" + std::string(USAGE), ""},
      {{"-v"}, "bh_servd version 2.37\n", ""},
      {{"--version", "--nonsense"}, "bh_servd version 2.37\n", ""},
      {{"-c", "--nodhcpc", "-n"}, "start start_server()\n", "no standalone mode"},
      {{"-d", "-n", "-i", "eth0"},
       "start at debug mode\nstart start_server()\nbh_servd Ver.0.35\n",
       "assigned intreface eth0"},
      {{"-i", "eth7"}, "start start_server()\n", "start_server SIOCSIFHWADDR :No such device"},
      {{"-i", std::string(300, 'x')}, "start start_server()\n", "SIOCSIFHWADDR :No such device"},
      {{"-t", "eth7"}, "", "could not open pid file: No such file or directory"},
  };
  for (const auto &[options, output, line] : cases) {
    Words argv = {"bh_servd"};
    argv.insert(argv.end(), options.begin(), options.end());
    const board::Result result = OnBoard(argv);
    EXPECT_EQ(result.exit_code, 0) << testing::PrintToString(options);
    EXPECT_EQ(result.output, output) << testing::PrintToString(options);
    EXPECT_TRUE(AwaitSyslog(line)) << line;
  }
  EXPECT_FALSE(board::Exists(board, "/var/run/bh_servd-eth7.pid"));
}

TEST_F(Core, UnsupportedProductsAreRefused) {
  const std::tuple<std::string, const char *, int> cases[] = {
      {"", "invalid productID. ID=0000\n", 255},
      {"4", "invalid productID. ID=0004\n", 255},
      {"0x1001", "invalid productID. ID=1001\n", 255},
      {"4098", "invalid productID. ID=1002\n", 255},
      {"5", "bh_servd version 2.37\n", 0},
      {"0x1003", "bh_servd version 2.37\n", 0},
      {"-1", "bh_servd version 2.37\n", 0},
  };
  board::Remove(board, "/proc/qrconf_info");
  for (const auto &[id, output, status] : cases) {
    board::WriteFile(board, "/proc/brackenhold", "PRODUCTID=\"" + id + "\"\n");
    const board::Result result = OnBoard({"bh_servd", "-v"});
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.exit_code, status) << id;
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

TEST_F(Core, SignalsOfTheServer) {
  StartDaemon();
  for (const int harmless : {SIGUSR1, SIGCHLD, SIGPIPE}) {
    ASSERT_TRUE(board::Kill(board, ServerPid(), harmless));
    ExpectAlive();
  }
  std::vector<std::pair<int, const char *>> ends = {{SIGHUP, "code=1\n"}, {SIGTERM, "code=15\n"}};
#if !defined(__SANITIZE_ADDRESS__)
  ends.emplace_back(SIGSEGV, "code=11\n");
#endif
  for (const auto &[number, code] : ends) {
    ASSERT_TRUE(board::Kill(board, ServerPid(), number));
    EXPECT_TRUE(AwaitSyslog(std::string("<24>kv_serv_exit() exit kv_servd. ") + code)) << number;
    EXPECT_TRUE(board::WaitFor([&] { return !board::Exists(board, PID_FILE); })) << number;
    ASSERT_TRUE(AwaitServers(0));
    StartDaemon();
  }
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

TEST_F(Core, StartThatCannotBeCompleted) {
  const std::tuple<const char *, const char *, int> cases[] = {
      {"bh_servd/socket:1:EMFILE", "start_server could not open socket: Too many open files ", 255},
      {"bh_servd/setsockopt=6:1:EPERM",  // SO_BROADCAST
       "start_server could not set broadcast option to socket: Operation not permitted ", 0},
      {"bh_servd/bind:1:EADDRINUSE",
       "<24>standalone_server > could not bind sock to device Address already in use \n", 0},
  };
  for (const auto &[fail, line, status] : cases) {
    EXPECT_EQ(OnBoard({"bh_servd"}, fail).exit_code, status) << fail;
    EXPECT_TRUE(AwaitSyslog(line)) << fail << Syslog();
    EXPECT_TRUE(board::WaitFor([this] { return !board::Exists(board, PID_FILE); })) << fail;
  }
  StartDaemon();
  ExpectAlive();
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
    board::WriteFile(board, "/run/hostname",
                     std::string("#!/bin/sh\n") + words + ">/run/asked\nexec sleep 1000\n");
    ASSERT_EQ(OnBoard({"chmod", "+x", "/run/hostname"}).exit_code, 0);
    board::Remove(board, "/run/asked");
    StartDaemon();
    wire::Send(client, wire::Request(DISCOVER));
    ASSERT_TRUE(board::WaitFor([this] { return board::Exists(board, "/run/asked"); }));
    EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth0"}).exit_code, 0);
    EXPECT_TRUE(AwaitServers(0)) << words;
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
