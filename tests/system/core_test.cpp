// Command line, start, modes and end of the daemon, seen from the board.

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "tests/system/fixture.h"

namespace {

constexpr char kUsage[] =
    "Usage: \n"
    " --interface or -i <device name> \n"
    " --debug or -d                   : running at debug mode \n"
    " --nofork                        : running by foreground \n"
    " --nodhcpc                       : can't set dhcpc \n"
    " --terminate or -t <device name> \n"
    " --nostandalone or -n            : call from super daemon (inetd)\n"
    " --help or -h                    : this usage\n";

constexpr char kPidFile[] = "/var/run/bh_servd-eth0.pid";

using Words = std::vector<std::string>;

}  // namespace

using Core = SystemTest;

TEST_F(Core, OptionsThatServeNothing) {
  const struct {
    Words options;
    std::string output;  // standard output and error
    const char *syslog;
  } cases[] = {
      {{"--help"}, kUsage, "startup daemon"},
      {{"-h"}, "bh_servd: invalid option -- 'h'\n" + std::string(kUsage), "startup daemon"},
      {{"--nonsense"}, "bh_servd: unrecognized option '--nonsense'\n" + std::string(kUsage), ""},
      {{"-i"}, "bh_servd: option requires an argument -- 'i'\n" + std::string(kUsage), ""},
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
  for (const auto &test : cases) {
    Words argv = {"bh_servd"};
    argv.insert(argv.end(), test.options.begin(), test.options.end());
    const board::Result result = OnBoard(argv);
    EXPECT_EQ(result.exit_code, 0) << testing::PrintToString(test.options);
    EXPECT_EQ(result.output, test.output) << testing::PrintToString(test.options);
    EXPECT_TRUE(AwaitSyslog(test.syslog)) << test.syslog;
  }
  EXPECT_FALSE(board::Exists(board, "/var/run/bh_servd-eth7.pid"));
}

TEST_F(Core, UnsupportedProductsAreRefused) {
  const struct {
    const char *id;
    const char *output;
    int status;
  } cases[] = {
      {"", "invalid productID. ID=0000\n", 255},
      {"4", "invalid productID. ID=0004\n", 255},
      {"0x1001", "invalid productID. ID=1001\n", 255},
      {"4098", "invalid productID. ID=1002\n", 255},
      {"5", "bh_servd version 2.37\n", 0},
      {"0x1003", "bh_servd version 2.37\n", 0},
      {"-1", "bh_servd version 2.37\n", 0},
  };
  board::Remove(board, "/proc/qrconf_info");
  for (const auto &test : cases) {
    board::WriteFile(board, "/proc/brackenhold", "PRODUCTID=\"" + std::string(test.id) + "\"\n");
    const board::Result result = OnBoard({"bh_servd", "-v"});
    EXPECT_EQ(result.output, test.output);
    EXPECT_EQ(result.exit_code, test.status) << test.id;
  }
}

TEST_F(Core, ServesUntilItIsTerminated) {
  StartDaemon();
  const pid_t server = ServerPid();
  EXPECT_GT(server, 1);
  EXPECT_EQ(board::ReadFile(board, kPidFile), std::to_string(server));
  // The launcher's number is the one before, but for a thread of the emulator.
  const int before = getenv("BOARD_POWERPC") == nullptr ? 1 : 2;
  const std::string ident = " bh_servd[" + std::to_string(server - before) + "]: startup daemon\n";
  EXPECT_NE(board::ReadFile(board, board::kSyslog).find(ident), std::string::npos);
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
  EXPECT_FALSE(board::Exists(board, kPidFile));
  ASSERT_TRUE(AwaitServers(0));
  StartDaemon();
  ExpectAlive();
}

TEST_F(Core, SignalsOfTheServer) {
  const struct {
    int number;
    const char *exit_line;  // null: it serves on
  } cases[] = {
    {SIGUSR1, nullptr},
    {SIGCHLD, nullptr},
    {SIGPIPE, nullptr},
    {SIGHUP, "kv_serv_exit() exit kv_servd. code=1\n"},
    {SIGTERM, "kv_serv_exit() exit kv_servd. code=15\n"},
#if !defined(__SANITIZE_ADDRESS__)
    {SIGSEGV, "kv_serv_exit() exit kv_servd. code=11\n"},
#endif
  };
  for (const auto &test : cases) {
    if (!board::Exists(board, kPidFile)) {
      ASSERT_TRUE(AwaitServers(0));
      StartDaemon();
    }
    ASSERT_TRUE(board::Kill(board, ServerPid(), test.number));
    if (test.exit_line == nullptr) {
      ExpectAlive();
      continue;
    }
    EXPECT_TRUE(AwaitSyslog(test.exit_line)) << test.number;
    EXPECT_TRUE(board::WaitFor([&] { return !board::Exists(board, kPidFile); })) << test.number;
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

TEST_F(Core, CrashIsLoggedOrLeftToTheSanitizer) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const pid_t process =
      board::Spawn(board, {.argv = {"bh_servd", "--nofork"}, .out = null, .err = null});
  close(null);
  ASSERT_TRUE(AwaitServers(1));
  kill(process, SIGSEGV);
  const board::Result end = board::Wait(process);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_NE(end.exit_code, 0);
#else
  EXPECT_EQ(end.exit_code, 0);
  EXPECT_TRUE(AwaitSyslog("<24>kv_serv_exit() exit kv_servd. code=11\n"));
#endif
}

TEST_F(Core, StartThatCannotBeCompleted) {
  const struct {
    const char *fail;
    const char *syslog;
    int status;
  } cases[] = {
      {"bh_servd/socket:1:EMFILE", "start_server could not open socket: Too many open files ", 255},
      {"bh_servd/setsockopt:2:EPERM",
       "start_server could not set broadcast option to socket: Operation not permitted ", 0},
  };
  for (const auto &test : cases) {
    EXPECT_EQ(OnBoard({"bh_servd"}, test.fail).exit_code, test.status) << test.fail;
    EXPECT_TRUE(AwaitSyslog(test.syslog)) << test.fail;
    EXPECT_FALSE(board::Exists(board, kPidFile));
  }
  StartDaemon();
  ExpectAlive();
}

TEST_F(Core, BusyPortLeavesNoPidFile) {
  const pid_t holder = board::Fork(board);
  if (holder == 0) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(22936);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&any), sizeof(any)) != 0) _exit(1);
    for (;;)
      pause();
  }
  ASSERT_TRUE(AwaitServers(1));
  EXPECT_EQ(OnBoard({"bh_servd"}).exit_code, 0);
  EXPECT_TRUE(AwaitSyslog(
      "<24>standalone_server > could not bind sock to device Address already in use \n"));
  EXPECT_TRUE(board::WaitFor([this] { return !board::Exists(board, kPidFile); }));
  kill(holder, SIGKILL);
}

TEST_F(Core, ServesWithoutAPidFileWhenItsFolderIsMissing) {
  ASSERT_EQ(OnBoard({"/bin/sh", "-c", "rm -f /var/run && ln -s /nowhere /var/run"}).exit_code, 0);
  StartDaemon();
  EXPECT_TRUE(AwaitSyslog("could not create pid file"));
  ExpectAlive();
}

TEST_F(Core, ForegroundServerTracesToStandardOutput) {
  int ends[2] = {};
  ASSERT_EQ(pipe(ends), 0);
  const pid_t process = board::Spawn(
      board, {.argv = {"bh_servd", "-d", "--nofork", "-a", "/var/log/trace"}, .out = ends[1]});
  close(ends[1]);
  ASSERT_TRUE(AwaitServers(1));
  ExpectAlive();
  EXPECT_FALSE(board::Exists(board, kPidFile));
  kill(process, SIGTERM);
  EXPECT_EQ(board::Wait(process).exit_code, 0);

  std::string output(4096, '\0');
  output.resize(static_cast<size_t>(std::max<ssize_t>(read(ends[0], output.data(), 4096), 0)));
  EXPECT_EQ(output.find("start at debug mode\nstart start_server()\nbh_servd Ver.0.35\n"
                        "listen device name = eth0\n\r\n"),
            0U)
      << output;
  EXPECT_NE(output.find(": **************************************\r\n-- ACP_PING\r\n"),
            std::string::npos)
      << output;
  EXPECT_EQ(Trace(), "");
  close(ends[0]);
}

TEST_F(Core, ForkThatFailsServesInTheForeground) {
  const pid_t process =
      board::Spawn(board, {.argv = {"bh_servd"}, .fail = "bh_servd/fork:1:EAGAIN"});
  ASSERT_TRUE(AwaitServers(1));
  EXPECT_TRUE(AwaitSyslog("could not create child process"));
  EXPECT_FALSE(board::Exists(board, kPidFile));
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
  wire::Send(second, wire::Request(kPing, {}, eth1));
  const auto reply = wire::Receive(second);
  ASSERT_TRUE(reply);
  EXPECT_EQ(wire::Bytes(reply->begin() + 16, reply->begin() + 22), wire::Hex(eth1));

  EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth1"}).exit_code, 0);
  EXPECT_TRUE(AwaitSyslog("Stopping bh_servd that is bound to eth1"));
  EXPECT_EQ(Ask(wire::Request(kPing, {}, eth0)).size(), 32U);
  wire::Close(second);
}
