// An hour of administrators' tools with one appliance, compressed into two minutes: what the daemon
// holds at the end must be what it held at the start.
//
// A tool that polls each second sends 3,600 requests in an hour. So many at least are answered
// here, 60 and more in each minute of the board's clock, which is set on by a minute when they are
// done: keys expire as in an hour, and those of the last half of it are always in the list. The
// requests of a minute are for every handler, without those that end the daemon, choose another
// system, program the MAC address or test hardware, and those of the other product family.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "access/cipher.h"
#include "acp/packet.h"
#include "board/board.h"
#include "board/client_end.h"
#include "lib/descriptor.h"

namespace {

using std::string;
using wire::Bytes;
using wire::Command;
using wire::Request;
using wire::Special;
using Clock = std::chrono::steady_clock;

constexpr int MINUTES = 60;
constexpr int POLLS = 36;      // of a minute's requests
constexpr int REQUESTERS = 4;  // MACs that ask for the first time, each minute
constexpr auto LEAST_TIME = std::chrono::minutes(2);

// Where keys lay among other blocks, the allocator may have had to go on a page or two: the list
// takes one when it is longest. A leak of 3 bytes a request is more than that.
constexpr long ALLOWED = 8;  // KiB

constexpr uint32_t IMAGE_SIZE = 100'000;  // bytes, all 0xA5
constexpr uint32_t IMAGE_SUM = 0xA5A5A5A5U * (IMAGE_SIZE / 4);

struct Appliance {
  board::Board board = {};
  wire::Client client = {};
  pid_t server = -1;       // the daemon, by its number on the board
  uint32_t requester = 0;  // the last four bytes of the MAC that asks
  Bytes discovered = {};   // under whose key passwords are encoded
  int answered = 0;
  int wrong = 0;  // replies missing, or with another state than they should have
};

void Put(Bytes &bytes, size_t at, uint32_t number) {
  for (size_t i = 0; i < sizeof(number); ++i)
    bytes[at + i] = static_cast<uint8_t>(number >> (8 * i));
}

void PutText(Bytes &bytes, size_t at, std::string_view text) {
  std::copy(text.begin(), text.end(), bytes.begin() + static_cast<ptrdiff_t>(at));
}

Bytes PathRequest(uint16_t command, std::string_view path) {
  Bytes body(sizeof(DiskRequest));
  PutText(body, 0, path);
  return Request(command, body);
}

// Under the key of the last discovery.
string Encoded(std::string_view password, const Bytes &discovered) {
  const uint32_t key = htonl(wire::Number(
      discovered, ACP_HEADER_SIZE + offsetof(DiscoverInfo, key)));  // its first byte is the highest
  Bytes clear((password.size() / CIPHER_BLOCK + 1) * CIPHER_BLOCK);
  PutText(clear, 0, password);
  Bytes encoded(clear.size());
  for (size_t at = 0; at < clear.size(); at += CIPHER_BLOCK)
    EncryptBlock(encoded.data() + at, clear.data() + at, key);
  return {encoded.begin(), encoded.end()};
}

void Complain(Appliance &appliance, const Bytes &request, std::string_view what) {
  const int code = request.size() > ACP_HEADER_SIZE ? request[ACP_HEADER_SIZE] : 0;
  printf("request 0x%02x%02x, first byte 0x%02x: %.*s\n", request[9], request[8], code,
         static_cast<int>(what.size()), what.data());
  ++appliance.wrong;
}

// The next reply to what has been sent last.
Bytes Await(Appliance &appliance, const Bytes &request) {
  Bytes reply = wire::Receive(appliance.client, wire::milliseconds(30'000)).value_or(Bytes{});
  if (reply.size() < ACP_HEADER_SIZE) {
    Complain(appliance, request, "no reply");
    reply.resize(MAX_REPLY);
  }
  return reply;
}

Bytes Ask(Appliance &appliance, Bytes request) {
  Put(request, 18, appliance.requester);
  wire::Send(appliance.client, request);
  ++appliance.answered;
  return Await(appliance, request);
}

void Expect(Appliance &appliance, uint32_t state, const Bytes &request) {
  const uint32_t result = wire::Number(Ask(appliance, request), 28);
  if (result != state) Complain(appliance, request, "state " + std::to_string(result));
}

// By machines that were not seen before. The last of them goes on: its key does not expire
// meanwhile.
void Discover(Appliance &appliance, int requesters) {
  for (int i = 0; i < requesters; ++i) {
    ++appliance.requester;
    appliance.discovered = Ask(appliance, Request(ACP_DISCOVER));
  }
}

void Poll(Appliance &appliance) {
  const Bytes polls[] = {
      Request(ACP_PING),      Request(ACP_INFO_HDD),
      Request(ACP_INFO_RAID), PathRequest(ACP_INFO_HDD, "/proc/ide/hdb"),
      Request(ACP_DISCOVER),  PathRequest(ACP_PART, "/tmp"),
  };
  for (int i = 0; i < POLLS; ++i)
    Expect(appliance, ACP_STATE_OK, polls[static_cast<size_t>(i) % std::size(polls)]);
  Expect(appliance, ACP_STATE_FAILURE, PathRequest(ACP_PART, "/nowhere"));
}

// Of other commands, for other appliances, and cut short.
void SendUnanswered(const Appliance &appliance) {
  Bytes other = Request(ACP_PING);
  Put(other, offsetof(ACPHeader, dst_mac), 0x000B4A02);
  Bytes cut = Request(ACP_CHANGE_IP, Bytes(sizeof(ChangeIpRequest)));
  cut.resize(100);
  for (const Bytes &datagram : {other, cut, Request(0x1234), Request(ACP_INFO), Bytes(8)})
    wire::Send(appliance.client, datagram);
}

void Enable(Appliance &appliance) {
  const Bytes &discovered = appliance.discovered;
  Expect(appliance, ACP_STATE_NOT_PERMIT,
         Special(SPECIAL_VERIFY_PASSWORD, 0, Encoded("admin", discovered)));
  Expect(appliance, ACP_STATE_PASSWORD_ERROR,
         Special(SPECIAL_COMMAND_MODE, 0, Encoded("WrongOne", discovered)));
  Expect(appliance, ACP_STATE_OK,
         Special(SPECIAL_COMMAND_MODE, 0, Encoded("FernGate", discovered)));
  Expect(appliance, ACP_STATE_PASSWORD_ERROR,
         Special(SPECIAL_VERIFY_PASSWORD, 0, Encoded("Admin", discovered)));
  Expect(appliance, ACP_STATE_OK,
         Special(SPECIAL_VERIFY_PASSWORD, 0, Encoded("admin", discovered)));
}

void RunCommands(Appliance &appliance) {
  Expect(appliance, ACP_STATE_OK, Command(COMMAND_WAITED, "true"));
  Expect(appliance, ACP_STATE_OK, Command(COMMAND_TO_FILE, "cat /etc/hosts"));
  for (int line = 0; line < 3; ++line)
    Expect(appliance, ACP_STATE_OK, Request(ACP_RESULT));
  Expect(appliance, ACP_STATE_OK, Command(COMMAND_CAPTURED, "cat /etc/passwd"));
  Expect(appliance, ACP_STATE_FAILURE, Command(COMMAND_BACKGROUND, "true"));  // it has started
}

void RunSpecials(Appliance &appliance, int minute) {
  constexpr struct {
    uint8_t code;
    uint32_t extra, state;
    const char *text;
  } SPECIALS[] = {
      {SPECIAL_LOCK, 0, ACP_STATE_OK, ""},  // the lock, taken, seen, released, seen
      {SPECIAL_CHECK_LOCK, 0, ACP_STATE_OK, ""},
      {SPECIAL_UNLOCK, 0, ACP_STATE_OK, ""},
      {SPECIAL_CHECK_LOCK, 0, 1, ""},
      {SPECIAL_SAVE_CONFIG, 0, ACP_STATE_OK, ""},
      {SPECIAL_LOAD_CONFIG, 0, ACP_STATE_OK, ""},
      {SPECIAL_INIT_WEB, 0, ACP_STATE_OK, ""},
      {SPECIAL_TRACE, 0, ACP_STATE_OK, ""},
      {SPECIAL_TRACE, 1, ACP_STATE_OK, ""},
      {SPECIAL_CHANGE_PASSWORD, 0, ACP_STATE_BAD_PRODUCT, ""},
      {0x13, 0, ACP_STATE_NOT_SUPPORT, ""},
      {SPECIAL_REMOVE_FILE, 0, ACP_STATE_FAILURE, "/nowhere"},
      {SPECIAL_FILE_CHECKSUM, 0, 0xFFFF, "/nowhere"},
      {SPECIAL_CLEAR_USB, 0, ACP_STATE_OK, ""},
  };
  for (const auto &[code, extra, state, text] : SPECIALS)
    Expect(appliance, state, Special(code, extra, text));
  Ask(appliance, Special(SPECIAL_FILE_CHECKSUM, 0, "/etc/hosts"));
  if (minute % 10 == 0)
    Expect(appliance, ACP_STATE_OK, Special(SPECIAL_BLINK));  // 3 seconds of blinking
}

// All that a request can change, the clock to the time that it shows.
void ChangeIdentity(Appliance &appliance, std::string_view host, uint32_t address) {
  const Bytes discovered = Ask(appliance, Request(ACP_DISCOVER));
  Bytes body(sizeof(ChangeIpRequest));
  Put(body, offsetof(ChangeIpRequest, change_mask),
      CHANGE_MASK_IP | CHANGE_MASK_HOSTNAME | CHANGE_MASK_WORKGROUP | CHANGE_MASK_DATETIME |
          FLAG_CHANGE_INIT | CHANGE_MASK_GATEWAY);
  Put(body, offsetof(ChangeIpRequest, address), address);
  Put(body, offsetof(ChangeIpRequest, netmask), 0xFFFFFF00);
  PutText(body, offsetof(ChangeIpRequest, host_name), host);
  PutText(body, offsetof(ChangeIpRequest, workgroup), "WORKGROUP");
  std::copy_n(discovered.begin() + ACP_HEADER_SIZE + offsetof(DiscoverInfo, year), 12,
              body.begin() + offsetof(ChangeIpRequest, year));
  Put(body, offsetof(ChangeIpRequest, gateway), 0xC0A82801);
  Expect(appliance, ACP_STATE_OK, Request(ACP_CHANGE_IP, body));
  Expect(appliance, ACP_STATE_OK, Request(ACP_PING));  // once all is done
}

void AskUpdate(Appliance &appliance, uint32_t type, uint32_t sum, uint32_t state) {
  Bytes body(offsetof(UpdateRequest, password) + CIPHER_BLOCK + 1);
  Put(body, offsetof(UpdateRequest, firm_type), type);
  Put(body, offsetof(UpdateRequest, firm_pid),
      wire::Number(appliance.discovered, ACP_HEADER_SIZE + offsetof(DiscoverInfo, product_id)));
  Put(body, offsetof(UpdateRequest, firm_size), IMAGE_SIZE);
  Put(body, offsetof(UpdateRequest, true_chksum), sum);
  PutText(body, offsetof(UpdateRequest, password), Encoded("admin", appliance.discovered));
  Expect(appliance, state, Request(ACP_FIRMUP2, body));
}

void Upload(Appliance &appliance, size_t size) {
  static const Bytes image(IMAGE_SIZE, 0xA5);
  struct sockaddr_in peer = {};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(ACP_PORT);
  inet_pton(AF_INET, "192.168.40.2", &peer.sin_addr);
  const Descriptor upload(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(upload.Get(), reinterpret_cast<struct sockaddr *>(&peer), sizeof(peer)) != 0 ||
      send(upload.Get(), image.data(), size, MSG_NOSIGNAL) != static_cast<ssize_t>(size))
    Complain(appliance, Request(ACP_FIRMUP2), "no upload");
}

// One that is installed, one with a wrong checksum, one that is cut, one that is called off, and
// one for a target that does not exist.
void Update(Appliance &appliance) {
  const Bytes end = Request(ACP_FIRMUP_END);
  Bytes off = end;
  Put(off, 28, 1);
  AskUpdate(appliance, 2, IMAGE_SUM, ACP_STATE_OK);
  Upload(appliance, IMAGE_SIZE);
  Expect(appliance, ACP_STATE_OK, end);
  const uint32_t finished = wire::Number(Await(appliance, end), 28);
  if (finished != ACP_STATE_OK) Complain(appliance, end, "not installed");
  for (const size_t size : {size_t{IMAGE_SIZE}, size_t{IMAGE_SIZE} / 2}) {
    AskUpdate(appliance, 2, IMAGE_SUM + 1, ACP_STATE_OK);
    Upload(appliance, size);
    Expect(appliance, ACP_STATE_FAILURE, end);
  }
  AskUpdate(appliance, 2, IMAGE_SUM, ACP_STATE_OK);
  Expect(appliance, ACP_STATE_FAILURE, off);
  AskUpdate(appliance, 99, IMAGE_SUM, ACP_STATE_FAILURE);
}

void SetClockOn(const Appliance &appliance, const string &by) {
  board::Run(appliance.board, {.argv = {"date", "-s", "+" + by}});
}

void SpendMinute(Appliance &appliance, int minute, int requesters) {
  Discover(appliance, requesters);
  SendUnanswered(appliance);
  Enable(appliance);
  Poll(appliance);
  RunCommands(appliance);
  RunSpecials(appliance, minute);
  ChangeIdentity(appliance, "soaked", 0xC0A8284D);
  ChangeIdentity(appliance, "brackenhold", 0xC0A82802);
  Update(appliance);
  Expect(appliance, ACP_STATE_OK, Special(SPECIAL_COMMAND_MODE, 1));  // the command mode off
  SetClockOn(appliance, "1 minute");
}

struct Figure {
  const char *name;
  long number;
};

// The daemon's own, in KiB.
long ResidentMemory(const Appliance &appliance) {
  const string process = "/run/kernel-proc/" + std::to_string(appliance.server);
  std::ifstream status(appliance.board.root + process + "/status");
  for (string line; std::getline(status, line);)
    if (line.starts_with("RssAnon:")) return strtol(line.c_str() + 8, nullptr, 10);
  return -1;
}

// Those of the board, the daemon's own children, and all that wait to be collected.
std::vector<Figure> CountProcesses(const Appliance &appliance) {
  Figure all = {"processes on the board", 0};
  Figure own = {"children", 0};
  Figure dead = {"zombies on the board", 0};
  for (const board::Process &process : board::Processes(appliance.board)) {
    ++all.number;
    own.number += process.parent == appliance.server ? 1 : 0;
    dead.number += process.state == 'Z' ? 1 : 0;
  }
  return {own, dead, all};
}

long CountLines(const board::Board &board, const string &path) {
  const string text = board::Run(board, {.argv = {"cat", path}}).output;
  return std::count(text.begin(), text.end(), '\n') - 1;  // a heading stands above them
}

// Of the idle daemon, with one key in its list.
std::vector<Figure> Measure(Appliance &appliance) {
  SetClockOn(appliance, "1801 seconds");
  Discover(appliance, 1);
  std::vector<Figure> figures;
  board::WaitFor([&] { return (figures = CountProcesses(appliance))[0].number == 0; });
  figures.push_back({"descriptors", board::OpenFiles(appliance.board, appliance.server)});
  figures.push_back({"shared memory segments", CountLines(appliance.board, "/proc/sysvipc/shm")});
  figures.push_back({"semaphore sets", CountLines(appliance.board, "/proc/sysvipc/sem")});
  figures.push_back({"resident memory, KiB", ResidentMemory(appliance)});
  return figures;
}

// Prints both, and says whether they are equal.
bool Compare(const std::vector<Figure> &start, const std::vector<Figure> &end) {
  bool equal = true;
  printf("%-24s %8s %8s\n", "", "start", "end");
  for (size_t i = 0; i < start.size(); ++i) {
    const long more = end[i].number - start[i].number;
    const bool memory = i + 1 == start.size();
    const bool same = memory ? std::abs(more) <= ALLOWED : more == 0;
    printf("%-24s %8ld %8ld%s\n", start[i].name, start[i].number, end[i].number,
           same ? "" : "  differs");
    equal = equal && same;
  }
  return equal;
}

bool Start(Appliance &appliance) {
  string why;
  std::optional<board::Board> board;
  if (board::EnterNamespaces(why)) board = board::Boot({}, why);
  if (!board) {
    fprintf(stderr, "%s\n", why.c_str());
    return false;
  }
  appliance.board = *board;
  appliance.client = wire::Open(board->wires[0]);
  board::WriteFile(*board, "/run/fast-sleep", "");
  if (board::Run(*board, {.argv = {"bh_servd"}}).exit_code != 0) return false;
  const string number = board::ReadFile(*board, "/var/run/bh_servd-eth0.pid");
  appliance.server = static_cast<pid_t>(strtol(number.c_str(), nullptr, 10));
  return board::WaitFor([&] {
    wire::Send(appliance.client, Request(ACP_PING));
    return wire::Receive(appliance.client, wire::milliseconds(200)).has_value();
  });
}

}  // namespace

int main() {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Appliance appliance;
  if (!Start(appliance)) return 1;
  // As many keys as will ever be there, and each path once.
  SpendMinute(appliance, 0, REQUESTERS * 31);
  const std::vector<Figure> before = Measure(appliance);
  appliance.answered = 0;
  const Clock::time_point start = Clock::now();
  int minute = 0;
  while (minute < MINUTES || Clock::now() - start < LEAST_TIME)
    SpendMinute(appliance, ++minute, REQUESTERS);
  const std::chrono::duration<double> time = Clock::now() - start;
  printf("%d requests in %.0f s, %d minutes of the board's\n", appliance.answered, time.count(),
         minute);
  const bool equal = Compare(before, Measure(appliance));
  wire::Close(appliance.client);
  board::Halt(appliance.board);
  return equal && appliance.wrong == 0 && appliance.answered >= MINUTES * 60 ? 0 : 1;
}
