// Set-up and tear-down of system tests.

#include "tests/system/fixture.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "access/cipher.h"

namespace {

constexpr char TRACE_FILE[] = "/var/log/trace";

}  // namespace

void SystemTest::SetUp() {
  BootBoard({});
}

void ServingTest::SetUp() {
  SystemTest::SetUp();
  StartDaemon();
}

void SystemTest::BootBoard(const board::Config &config) {
  if (board.init > 0) {
    wire::Close(client);
    board::Halt(board);
  }
  std::string why;
  const auto booted = board::Boot(config, why);
  ASSERT_TRUE(booted) << why;
  board = *booted;
  client = wire::Open(board.wires[0]);
}

void SystemTest::TearDown() {
  if (HasFailure() && board.init > 0) {
    const auto *test = testing::UnitTest::GetInstance()->current_test_info();
    const std::filesystem::path folder =
        std::filesystem::current_path() / "failed-tests" /
        (std::string(test->test_suite_name()) + "." + test->name());
    std::filesystem::create_directories(folder);
    wire::SavePcap(client, folder / "wire.pcap");
    std::ofstream(folder / "trace") << Trace();
    std::ofstream(folder / "syslog") << Syslog();
    std::ofstream(folder / "calls") << board::ReadFile(board, board::CALL_LOG);
    printf("what happened is in %s\n", folder.c_str());
  }
  for (const std::string &file : client_files)
    std::filesystem::remove(file);
  wire::Close(client);
  board::Halt(board);
}

board::Result SystemTest::OnBoard(const std::vector<std::string> &argv, const std::string &fail) {
  return board::Run(board, {.argv = argv, .fail = fail});
}

void SystemTest::StartDaemon(const std::vector<std::string> &options, int servers) {
  std::vector<std::string> argv = {"bh_servd", "-d", "-a", TRACE_FILE};
  argv.insert(argv.end(), options.begin(), options.end());
  ASSERT_EQ(OnBoard(argv).exit_code, 0);
  ASSERT_TRUE(AwaitServers(servers)) << Syslog();
}

void SystemTest::StopDaemon() {
  EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth0"}).exit_code, 0);
  ASSERT_TRUE(AwaitServers(0));
}

bool SystemTest::AwaitServers(int count) {
  return board::WaitFor([&] { return std::ssize(board::ServiceSockets(board)) == count; });
}

pid_t SystemTest::ServerPid(const std::string &interface) {
  const std::string text = board::ReadFile(board, "/var/run/bh_servd-" + interface + ".pid");
  return static_cast<pid_t>(strtol(text.c_str(), nullptr, 10));
}

wire::Bytes SystemTest::Ask(const wire::Bytes &request) {
  wire::Send(client, request);
  return wire::Receive(client).value_or(wire::Bytes{});
}

void SystemTest::ExpectAlive() {
  EXPECT_EQ(Ask(wire::Request(PING)).size(), 32U);
}

void SystemTest::TakeKey() {
  discovered = Ask(wire::Request(DISCOVER));
  ASSERT_EQ(discovered.size(), 320U);
}

wire::Bytes SystemTest::Encoded(const std::string &password) {
  const uint32_t key = htonl(wire::Number(discovered, 44));  // its first byte is the highest
  wire::Bytes clear(password.begin(), password.end());
  clear.resize((clear.size() / CIPHER_BLOCK + 1) * CIPHER_BLOCK);
  wire::Bytes encoded(clear.size() + 1);
  for (size_t at = 0; at < clear.size(); at += CIPHER_BLOCK)
    EncryptBlock(encoded.data() + at, clear.data() + at, key);
  return encoded;
}

std::string SystemTest::Bhctl(const std::string &arguments) {
  const std::string options = " --mac 02:0b:4a:00:00:10 -i " + board.wires[0] + " ";
  FILE *pipe = popen((BHCTL_PATH + options + arguments + " 2>&1 </dev/null").c_str(), "re");
  std::string output;
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe))
    output += static_cast<char>(c);
  return output + "exit " + std::to_string(WEXITSTATUS(pclose(pipe)));
}

void SystemTest::ExpectBhctl(const std::string &arguments, const std::string &part) {
  const std::string output = Bhctl(arguments);
  EXPECT_NE(output.find(part), std::string::npos) << arguments << ":\n" << output;
}

std::string SystemTest::ClientFile(const std::string &content) {
  client_files.push_back(testing::TempDir() + "client-" + std::to_string(getpid()) + "-" +
                         std::to_string(client_files.size()));
  std::ofstream(client_files.back(), std::ios::binary) << content;
  return client_files.back();
}

std::string SystemTest::Syslog() {
  std::istringstream log(board::ReadFile(board, board::SYSLOG));
  std::string plain;
  for (std::string line; std::getline(log, line);) {
    const size_t priority = line.find('>') + 1;
    const size_t text = line.find("]: ");
    plain +=
        line.substr(0, priority) + line.substr(text == std::string::npos ? priority : text + 3);
    plain += '\n';
  }
  return plain;
}

std::string SystemTest::Trace() {
  return board::ReadFile(board, TRACE_FILE);
}

std::string SystemTest::Leftovers() {
  return OnBoard({"sh", "-c", "ps -eo pid,ppid,stat,args; cat /proc/sysvipc/sem"}).output;
}

bool SystemTest::AwaitSyslog(const std::string &text) {
  return board::WaitFor([&] { return Syslog().find(text) != std::string::npos; });
}
