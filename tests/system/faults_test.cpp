// Each call that a request leads to and that can fail, made to fail once. The client gets a state
// that tells so, or nothing where the reply itself failed. The server works on and leaves nothing
// behind. The shim counts the calls: board/failing.h.

#include <fcntl.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "tests/system/fixture.h"

using std::string;
using wire::Bytes;
using wire::Command;
using wire::Request;
using wire::Special;
using States = std::vector<uint32_t>;

namespace {

constexpr uint32_t FAIL = 0xFFFFFFFF, LOCKED = 0x80000009, TEST_FAIL = 0x8000000C;
constexpr char PLAN[] = "/run/failing";
constexpr char ENDS_SERVER[] = "semget 3666";  // as it must, without a set of semaphores
constexpr const char *SETTINGS[] = {"/etc/network/interfaces", "/etc/hosts", "/etc/samba/smb.conf",
                                    "/etc/korvo/info", "/etc/korvo/diskinfo"};
// The calls that send a reply: AF_PACKET's socket, SO_BROADCAST, bind and sendto.
const std::set<string> REPLYING = {"socket 17", "setsockopt 6", "bind", "sendto"};
// Files that requests leave behind rightly.
const std::set<string> KEPT = {"bh_servd.log", "hddrootmode", "korsub_info.sh", "kv_firm_mem",
                               "firm_size_id", "diskinfo",    "results.txt",    "results.tmp"};

struct Case {
  const char *name;
  Bytes request;
  States states = {0};         // that may come; the first one when nothing fails
  const char *before = "";     // command on the board before each try
  const char *proof = "true";  // command on the board that succeeds when the state 0 is true
  Bytes first = {};            // request before it, in which nothing fails
  Bytes after = {};            // request behind it, likewise
  size_t replies = 1;
  bool locks = false;  // the lock is held afterwards
};

Bytes Record(uint16_t command, size_t size,
             std::initializer_list<std::pair<size_t, string>> texts) {
  Bytes body(size);
  for (const auto &[at, text] : texts) {
    body.resize(std::max(body.size(), at + text.size()));
    std::copy(text.begin(), text.end(), body.begin() + static_cast<ptrdiff_t>(at));
  }
  return Request(command, body);
}

// Whether the lock is free for others, as one that was never used is not.
bool IsLockFree() {
  const int set = semget(ftok("/var/log/qrconf_lock", 0), 0, 0);
  struct semid_ds use = {};
  return set < 0 || (semctl(set, 0, GETVAL) == 1 && semctl(set, 1, GETVAL) == 1 &&
                     semctl(set, 0, IPC_STAT, &use) == 0 && use.sem_otime != 0);
}

}  // namespace

class Faults : public SystemTest {
 protected:
  void Start(const char *product = "0x0010", const char *password = "FernGate7") {
    BootBoard({.product_id = product});
    board::WriteFile(board, "/run/fast-sleep", "");
    board::WriteFile(board, "/www/.htpasswd", "root:abcHKXPavTczo\n");  // "FernGate7"
    secret = password;
    for (const char *path : SETTINGS)
      settings.push_back(board::ReadFile(board, path));
    names = Names();
    Serve();
  }
  void Serve() {
    StartDaemon();
    while (wire::Receive(client, wire::milliseconds(0)))
      continue;
    close(trace);
    trace = board::OpenFile(board, "/var/log/trace", O_RDONLY | O_CLOEXEC);
    TakeKey();
    if (HasFatalFailure()) return;
    EXPECT_EQ(Ask(Special(0x0D, 0, Text("FernGate"))), States{0});
    EXPECT_EQ(Ask(Special(0x0C, 0, Text(secret))), States{0});
  }
  string Text(const string &password) {
    const Bytes encoded = Encoded(password);
    return {encoded.begin(), encoded.end()};
  }
  std::set<string> Names() {
    std::set<string> found;
    for (const char *folder : {"/etc", "/tmp", "/var/tmp"})
      for (const auto &entry : std::filesystem::directory_iterator(board.root + folder))
        found.insert(entry.path().filename());
    return found;
  }
  long OpenFiles() {
    return board::OpenFiles(board, ServerPid());
  }
  bool IsTidy() {
    const std::vector<board::Process> all = board::Processes(board);
    return std::none_of(all.begin(), all.end(), [](const auto &one) { return one.state == 'Z'; }) &&
           board::RunInside(board, IsLockFree).exit_code == 1;
  }
  // A packet that the server does not know is traced, without a call that could fail.
  bool HasServed() {
    char chunk[65536];
    for (ssize_t size = 0; (size = read(trace, chunk, sizeof(chunk))) > 0;)
      traced.append(chunk, static_cast<size_t>(size));
    char line[32];
    snprintf(line, sizeof(line), "Unknown (%x)", unknown);
    return traced.find(line) != string::npos || !board::Exists(board, PID_FILE);
  }
  // The states of the replies. Should one be missing, a ping that nothing disturbs comes instead.
  States Ask(const Bytes &request, size_t wanted = 1) {
    States states;
    traced.clear();
    wire::Send(client, request);
    wire::Send(client, Request(++unknown));
    EXPECT_TRUE(board::WaitFor([&] { return HasServed(); }));
    notes = board::ReadFile(board, PLAN);
    board::Remove(board, PLAN);
    const bool lives = board::Exists(board, PID_FILE);
    auto reply = wire::Receive(client, wire::milliseconds(0));
    for (; reply; reply = wire::Receive(client, wire::milliseconds(0)))
      states.push_back(wire::Number(*reply, 28));
    if (states.size() >= wanted || !lives) return states;
    wire::Send(client, Request("20 00 00 00 07 00 01 00 40 80 00 00 77 00 00 00"));
    while ((reply = wire::Receive(client)) && (*reply)[12] != 0x77)
      states.push_back(wire::Number(*reply, 28));
    EXPECT_TRUE(reply) << "no ping";
    return states;
  }
  // The call that has failed; empty when there were not so many.
  string Struck(int n) {
    std::istringstream lines(notes);
    string line;
    while (n-- >= 0)
      std::getline(lines, line);
    return lines ? line : "";
  }
  void Try(const Case &test) {
    const long open_files = OpenFiles();
    string struck = "-";
    for (int n = 1; !struck.empty() && !HasFailure(); ++n) {
      for (size_t i = 0; i < settings.size(); ++i)
        board::WriteFile(board, SETTINGS[i], settings[i]);
      if (!test.first.empty()) Ask(test.first);
      if (*test.before != '\0') OnBoard({"bash", "-c", test.before});
      board::WriteFile(board, PLAN, "bh_servd " + std::to_string(n) + "\n");
      const States states = Ask(test.request, test.replies);
      struck = Struck(n);
      SCOPED_TRACE(string(test.name) + " " + std::to_string(n) + ": " + struck);
      Judge(test, struck, states);
      if (struck == ENDS_SERVER) {
        EXPECT_TRUE(AwaitServers(0));
        Serve();
      }
      if (test.locks) Ask(Special(0x0B));
      EXPECT_TRUE(board::WaitFor([&] { return IsTidy(); })) << Leftovers();
      if (!test.after.empty()) Ask(test.after);
    }
    ExpectAlive();
    EXPECT_EQ(OpenFiles(), open_files) << test.name;
  }
  void Judge(const Case &test, const string &struck, const States &states) {
    const bool may_be_silent = REPLYING.contains(struck) || struck == ENDS_SERVER ||
                               (struck == "fork" && string(test.name) == "ping");
    const bool whole = states.size() == test.replies;
    if (!may_be_silent) {
      EXPECT_EQ(states.size(), test.replies);
    }
    for (const uint32_t state : states)
      EXPECT_EQ(std::count(test.states.begin(), test.states.end(), state), 1) << std::hex << state;
    if (whole && struck.empty()) {
      EXPECT_EQ(states.back(), test.states[0]);
    }
    if (whole && states.back() == 0) {
      EXPECT_EQ(OnBoard({"bash", "-c", test.proof}).exit_code, 0);
    }
    for (const char *path : SETTINGS) {
      const bool may_be_empty = struck == string("write ") + path;
      EXPECT_TRUE(may_be_empty || board::ReadFile(board, path) != "") << path;
    }
    for (const string &name : Names())
      EXPECT_TRUE(names.contains(name) || KEPT.contains(name)) << name;
  }
  void TryChange(char flag) {
    Start();
    const Bytes change = Record(0x8030, 112,
                                {{0, {flag}},
                                 {12, "\xF7"},
                                 {16, "\x02\x28\xA8\xC0"},
                                 {21, "\xFF\xFF\xFF"},
                                 {24, "fresh"},
                                 {41, "OFFICE"},
                                 {76, {'\xEA', 7, 5, 0, 4, 0, 3, 0, 2, 0, 1, 0}},
                                 {88, "\x01\x28\xA8\xC0"}});
    Try({.name = "change",
         .request = change,
         .states = {0, FAIL},
         .before = "hostname brackenhold; rm -f /var/run/dhcpcd*"});
  }
  void TryUpdate(const string &head, const char *proof, uint32_t finish) {
    Start();
    board::Remove(board, "/www/.htpasswd");  // any password will do, under a later key too
    const Bytes begin = Record(0x8080, 40, {{0, head}, {4, "\x10"}, {8, "\xD0\7"}});
    const Bytes end = Request(0x8070);
    Bytes give_up = end;
    give_up[28] = 5;
    const char upload[] = "head -c 2000 /dev/zero >/dev/tcp/192.168.40.2/22936";
    Try({.name = "update", .request = begin, .states = {0, FAIL, LOCKED}, .after = give_up});
    Try({.name = "given up", .request = give_up, .states = {FAIL}, .first = begin});
    Try({.name = "end",
         .request = end,
         .states = {finish, finish == 0 ? FAIL : 0},
         .before = upload,
         .proof = proof,
         .first = begin,
         .replies = 2});
  }

  std::vector<string> settings;
  std::set<string> names;
  string secret, traced, notes;
  uint16_t unknown = 0x1000;
  int trace = -1;
};

TEST_F(Faults, InQueriesAndCommands) {
  Start();
  for (const Case &test : std::initializer_list<Case>{
           {"discover", Request(0x8020)},
           {"ping", Request(0x8040)},
           {"disk", Request(0x8090)},
           {"raid", Request(0x80E0)},
           {"partition", Record(0x80D0, 8, {{0, "/tmp"}})},
           {"background", Command(0, "true"), {FAIL, 0}},
           {"waited", Command(1, "true")},
           {"to file", Command(2, "seq 3"), {0, 0xFF00}},  // the status of a child without shell
           {"captured", Command(3, "true"), {0, FAIL}},
           {.name = "result",
           .request = Request(0x8A20),
           .states = {0, FAIL},
           .before = "seq 2 >/var/tmp/results.txt"},
           {"other product", Special(0x12), {0x80000010}},
       })
    Try(test);
}

TEST_F(Faults, InMaintenance) {
  Start();
  const Bytes lock = Special(0x0A), unlock = Special(0x0B);
  board::WriteFile(board, "/run/sum", "abcd");
  board::WriteFile(board, "/run/stand-ins/brdctl",
                   "case $3 in '') r=$(cat /run/ups); for p in apc_sd apc_lf omron_sd omron_lf; do "
                   "echo ups_test_$p=$r; done ;; apc_sd) echo on >/run/ups ;; "
                   "*) echo off >/run/ups ;; esac\n");
  for (const Case &test : std::initializer_list<Case>{
           {"verify", Special(0x0C, 0, Text(secret))},  // before a server with another key
           {"enable", Special(0x0D, 0, Text("FernGate"))},
           {"reboot", Special(0x01)},
           {"shut down", Special(0x02)},
           {"emergency system", Special(0x03)},
           {.name = "disk system",
           .request = Special(0x04),
           .states = {0, FAIL},
           .proof = "test -e /etc/hddrootmode"},
           {.name = "blink",
           .request = Special(0x05),
           .before = "pkill -KILL -P $(cat /var/run/bh*)"},
           {"save", Special(0x06)},
           {"load", Special(0x07)},
           {"web", Special(0x08)},
           {"see the lock", Special(0x09), {1, 0}},
           {.name = "lock",
           .request = lock,
           .states = {0, FAIL, FAIL - 1, FAIL - 2},
           .locks = true},
           {.name = "first lock",
           .request = lock,
           .states = {0, FAIL, FAIL - 2},
           .before = "ipcrm --all=sem",
           .locks = true},
           {.name = "unlock", .request = unlock, .states = {0, FAIL}, .first = lock},
           {"trace", Special(0x0E)},
           {"address", Special(0x0F, 0, "02:0b:4a:00:00:10"), {0, FAIL}},
           {"drive", Special(0x40, 1, "/dev/hda"), {0, TEST_FAIL}},
           {"USB drive", Special(0x40, 0, "/dev/hda"), {0, TEST_FAIL}},
           {.name = "remove",
           .request = Special(0x41, 0, "/run/f"),
           .before = "touch /run/f",
           .proof = "! test -e /run/f"},
           {"checksum", Special(0x42, 0, "/run/sum"), {0x3B39, 0xFFFF}},
           {.name = "USB disks",
           .request = Special(0x45),
           .proof = "grep -q ^disk1= /etc/korvo/diskinfo"},
           {"UPS port", Special(0x50), {0, FAIL}},
       })
    Try(test);
}

TEST_F(Faults, InMaintenanceOfTheOtherFamily) {
  Start("0x2001", "admin");
  for (const Case &test : std::initializer_list<Case>{
           {"verify", Special(0x0C, 0, Text(secret))},
           {"password", Special(0x10, 0x5B, Text("hash"))},
           {"array", Special(0x11, 3), {0, FAIL}},
           {.name = "language",
           .request = Special(0x12),
           .states = {0, FAIL},
           .proof = "grep -q =japanese /etc/korvo/info"},
           {"reboot", Special(0x01)},
           {"shut down", Special(0x02)},
       })
    Try(test);
}

TEST_F(Faults, InAChangeToAFixedAddress) {
  TryChange('\0');
}

TEST_F(Faults, InAChangeToDhcp) {
  TryChange('\1');
}

TEST_F(Faults, InUpdatesOfTheFlash) {
  TryUpdate("\1", "cmp -n 2000 /dev/zero /dev/mtdblock0", 0);
}

TEST_F(Faults, InUpdatesOfTheDiskWithABadArchive) {
  TryUpdate("\4", "false", FAIL);
}
