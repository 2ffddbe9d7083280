// A test with a board of its own, the daemon on it and a client at the other end of the wire.

#ifndef BH_TESTS_SYSTEM_FIXTURE_H_
#define BH_TESTS_SYSTEM_FIXTURE_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "board/board.h"
#include "board/client_end.h"

class SystemTest : public testing::Test {
 protected:
  void SetUp() override;
  // After a failure the capture, trace, syslog and call log stay in a folder that is printed.
  void TearDown() override;

  void BootBoard(const board::Config &config);

  // Runs a program on the board to its end.
  board::Result OnBoard(const std::vector<std::string> &argv, const std::string &fail = "");

  // Starts the daemon in the background with the trace in a file, and waits until so many servers
  // are bound in all. A ping's child holds the socket a little longer than its server.
  void StartDaemon(const std::vector<std::string> &options = {}, int servers = 1);
  void StopDaemon();  // with eth0, by its own option
  bool AwaitServers(int count);
  pid_t ServerPid(const std::string &interface = "eth0");

  // Sends a request and gives its reply; an empty one when none came.
  wire::Bytes Ask(const wire::Bytes &request);
  void ExpectAlive();  // a ping is answered

  // Discovers, and so has a key issued under which passwords are encoded.
  void TakeKey();
  wire::Bytes Encoded(const std::string &password);  // whole blocks and a zero byte

  // Runs bhctl at the client's end: its output, errors too, and "exit N".
  std::string Bhctl(const std::string &arguments);
  void ExpectBhctl(const std::string &arguments, const std::string &part);  // of that

  // A file of the client's with that content, until the test ends: its path.
  std::string ClientFile(const std::string &content);

  std::string Syslog();  // "<priority>message" a line
  std::string Trace();
  std::string Leftovers();  // processes and semaphores of the board, for failure messages
  bool AwaitSyslog(const std::string &text);

  board::Board board;
  wire::Client client;
  wire::Bytes discovered;  // by TakeKey
  std::vector<std::string> client_files;
};

// The same with the daemon started.
class ServingTest : public SystemTest {
 protected:
  void SetUp() override;
};

constexpr char PID_FILE[] = "/var/run/bh_servd-eth0.pid";

// Commands.
constexpr uint16_t PING = 0x8040, DISCOVER = 0x8020, DISK = 0x8090, SPECIAL = 0x80A0;

#endif  // BH_TESTS_SYSTEM_FIXTURE_H_
