// Requests and replies are limited broadcasts, and replies may have any source address. So an
// appliance with an address from another network is reached, too.

#include "client/exchange.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "client/format.h"
#include "lib/address.h"

namespace acp {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// Answers to a broadcast arrive in a burst. The burst is over after this time without an answer.
constexpr Milliseconds QUIET_TIME{250};
// Holds the burst of a large network. The kernel accounts 1 to 2.5 KB for even a short datagram,
// and doubles the requested size.
constexpr int RECEIVE_BUFFER = 4 * 1024 * 1024;
// A repeatable request, or its answer, may be lost. An appliance that is silent for longer is at
// work: requests wait in its queue, so they become rarer.
constexpr Milliseconds REPEAT_INTERVAL{250};
constexpr std::chrono::seconds OFTEN{2};
// With each repetition a large network answers as a whole, and takes its time.
constexpr Milliseconds TIME_PER_ANSWER{4};
// While further appliances answer, it is not over: they are asked once more. But it never takes
// more than twice the timeout.
constexpr Milliseconds EXTENSION{500};

struct IfAddrsDeleter {
  void operator()(ifaddrs *list) const {
    freeifaddrs(list);
  }
};

// Loopback and point-to-point links have no Ethernet address of their own.
bool IsEthernet(const ifaddrs &entry, const sockaddr_ll &link) {
  return (entry.ifa_flags & IFF_LOOPBACK) == 0 && link.sll_hatype == ARPHRD_ETHER &&
         link.sll_halen == MAC_SIZE;
}

void AddLink(const ifaddrs &entry, std::vector<Interface> &interfaces) {
  sockaddr_ll link = {};
  memcpy(&link, entry.ifa_addr, sizeof(link));
  if (!IsEthernet(entry, link)) return;
  Interface interface;
  interface.name = entry.ifa_name;
  interface.index = link.sll_ifindex;
  interface.flags = entry.ifa_flags;
  std::copy_n(link.sll_addr, MAC_SIZE, interface.mac.begin());
  interfaces.push_back(interface);
}

uint32_t InetAddress(const sockaddr *address) {
  sockaddr_in inet = {};
  if (address != nullptr) memcpy(&inet, address, sizeof(inet));
  return ntohl(inet.sin_addr.s_addr);
}

// IPv4 entries carry the address's label, which may be "eth0:1".
void AddAddress(const ifaddrs &entry, std::vector<Interface> &interfaces) {
  const std::string label = entry.ifa_name;
  const std::string name = label.substr(0, label.find(':'));
  for (Interface &interface : interfaces) {
    if (interface.name != name) continue;
    interface.addresses.push_back(InetAddress(entry.ifa_addr));
    interface.netmasks.push_back(InetAddress(entry.ifa_netmask));
  }
}

bool CanBroadcast(const Interface &interface) {
  return (interface.flags & IFF_UP) != 0 && (interface.flags & IFF_BROADCAST) != 0;
}

// A named interface needs no IPv4 address, so a new machine can reach a new appliance.
Outcome ChooseNamed(const std::string &name, std::vector<Interface> &interfaces) {
  if (if_nametoindex(name.c_str()) == 0)
    return Failure(Result::INVALID, "no such interface: " + name);
  std::erase_if(interfaces, [&](const Interface &interface) {
    return interface.name != name || !CanBroadcast(interface);
  });
  if (!interfaces.empty()) return {};
  return Failure(
      Result::NO_ANSWER,
      "interface " + name + " is down, or is not an Ethernet interface that supports broadcast");
}

Outcome ChooseInterfaces(const std::string &name, std::vector<Interface> &interfaces) {
  interfaces = ListInterfaces();
  if (!name.empty()) return ChooseNamed(name, interfaces);
  std::erase_if(interfaces, [](const Interface &interface) {
    return interface.addresses.empty() || !CanBroadcast(interface);
  });
  if (!interfaces.empty()) return {};
  return Failure(Result::NO_ANSWER,
                 "no usable interface: none is up, supports broadcast and has an IPv4 address");
}

// SO_RCVBUFFORCE exceeds the system's limit, but needs CAP_NET_ADMIN.
void WidenReceiveBuffer(const Descriptor &socket) {
  constexpr socklen_t SIZE = sizeof(RECEIVE_BUFFER);
  if (setsockopt(socket.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, SIZE) != 0)
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, SIZE);
}

// Any local port will do: the appliance replies to the port that the request came from. Binds the
// socket to `interface` unless that is empty.
Outcome PrepareSocket(const Descriptor &socket, const std::string &interface) {
  const int on = 1;
  if (!socket.IsOpen()) return SystemFailure("cannot open a socket", errno);
  WidenReceiveBuffer(socket);
  if (setsockopt(socket.Get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof(on)) != 0)
    return SystemFailure("cannot enable IP_PKTINFO", errno);
  if (setsockopt(socket.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)) != 0)
    return SystemFailure("cannot broadcast", errno);
  if (!interface.empty() && setsockopt(socket.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                                       static_cast<socklen_t>(interface.size())) != 0)
    return SystemFailure("cannot bind to interface " + interface, errno);
  sockaddr_in any = {};
  any.sin_family = AF_INET;
  any.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(socket.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof(any)) != 0)
    return SystemFailure("cannot bind a socket", errno);
  return {};
}

// IP_PKTINFO selects the interface, whatever the routing table says.
bool SendOn(const Descriptor &socket, int interface_index, std::vector<uint8_t> datagram) {
  sockaddr_in everyone = {};
  everyone.sin_family = AF_INET;
  everyone.sin_port = htons(ACP_PORT);
  everyone.sin_addr.s_addr = htonl(INADDR_BROADCAST);
  in_pktinfo info = {};
  info.ipi_ifindex = interface_index;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(info))] = {};
  iovec part = {datagram.data(), datagram.size()};
  msghdr message = {};
  message.msg_name = &everyone;
  message.msg_namelen = sizeof(everyone);
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = IPPROTO_IP;
  header->cmsg_type = IP_PKTINFO;
  header->cmsg_len = CMSG_LEN(sizeof(info));
  memcpy(CMSG_DATA(header), &info, sizeof(info));
  return sendmsg(socket.Get(), &message, 0) >= 0;
}

// Removes the interfaces that the request could not be sent on.
void SendRequest(const Scope &scope, Exchange &exchange) {
  const Mac dst_mac = scope.mac.value_or(BROADCAST_MAC);
  std::erase_if(exchange.asked, [&](const Interface &interface) {
    if (SendOn(exchange.socket, interface.index,
               EncodeRequest(exchange.request, interface.mac, dst_mac)))
      return false;
    if (scope.warn) scope.warn("cannot send on " + interface.name + ": " + ErrorText(errno));
    return true;
  });
}

// Reads a datagram without waiting. Returns its length, or a negative number if there is none.
ssize_t ReceiveNow(const Descriptor &socket, std::span<uint8_t> datagram, int &interface_index) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
  iovec part = {datagram.data(), datagram.size()};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t length = recvmsg(socket.Get(), &message, MSG_DONTWAIT);
  const cmsghdr *header = length < 0 ? nullptr : CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != IP_PKTINFO) return length;
  in_pktinfo info = {};
  memcpy(&info, CMSG_DATA(header), sizeof(info));
  interface_index = info.ipi_ifindex;
  return length;
}

bool WaitReadable(const Exchange &exchange, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
  pollfd watched[] = {{exchange.socket.Get(), POLLIN, 0}, {exchange.cancel, POLLIN, 0}};
  if (poll(watched, 2, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) return false;
  return watched[0].revents != 0;
}

// Waits for one datagram until `deadline` or an interrupt. Returns nullopt if none came or if it is
// malformed. Reads before it polls, so a burst costs one system call per datagram.
std::optional<Reply> ReceiveReply(const Exchange &exchange, Clock::time_point deadline,
                                  int &interface_index) {
  uint8_t datagram[MAX_REPLY + 1];  // one more byte reveals a longer one
  ssize_t length = ReceiveNow(exchange.socket, datagram, interface_index);
  if (length < 0) {
    if (!WaitReadable(exchange, deadline)) return std::nullopt;
    length = ReceiveNow(exchange.socket, datagram, interface_index);
  }
  if (length < 0 || static_cast<size_t>(length) > MAX_REPLY) return std::nullopt;
  return DecodeReply(Bytes(datagram, static_cast<size_t>(length)));
}

// The interface that sent its request from `mac`. If virtual interfaces share that address, the one
// that received the reply.
std::string AnsweredInterface(const std::vector<Interface> &asked, const Mac &mac, int index) {
  const Interface *found = nullptr;
  for (const Interface &interface : asked)
    if (interface.mac == mac && (found == nullptr || interface.index == index)) found = &interface;
  return found == nullptr ? "" : found->name;
}

Answer MakeAnswer(const Exchange &exchange, const Reply &reply, int index) {
  Answer answer;
  std::copy_n(reply.header.src_mac, MAC_SIZE, answer.mac.begin());
  std::copy_n(reply.header.dst_mac, MAC_SIZE, answer.src_mac.begin());
  answer.interface = AnsweredInterface(exchange.asked, answer.src_mac, index);
  answer.state = reply.header.result;
  answer.body = reply.body;
  answer.round_trip =
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - exchange.sent);
  answer.command = reply.header.command;
  return answer;
}

std::vector<Mac> OwnMacs(const std::vector<Interface> &asked) {
  std::vector<Mac> macs(asked.size());
  std::transform(asked.begin(), asked.end(), macs.begin(),
                 [](const Interface &interface) { return interface.mac; });
  return macs;
}

std::optional<Answer> NextAnswer(const Exchange &exchange, Clock::time_point deadline) {
  const std::vector<Mac> own_macs = OwnMacs(exchange.asked);
  while (Clock::now() < deadline && !IsCancelled(exchange.cancel)) {
    int index = 0;
    const std::optional<Reply> reply = ReceiveReply(exchange, deadline, index);
    if (reply && AnswersRequest(*reply, exchange.request, own_macs, exchange.wanted))
      return MakeAnswer(exchange, *reply, index);
  }
  return std::nullopt;
}

// False for a repeated answer: an appliance that several interfaces reach answers on each of them.
bool AddAnswer(Answer answer, std::vector<Answer> &answers) {
  if (std::any_of(answers.begin(), answers.end(),
                  [&](const Answer &other) { return other.mac == answer.mac; }))
    return false;
  answers.push_back(std::move(answer));
  return true;
}

// The answers to the request as sent last, until `deadline` or the end of the burst. False when
// there is nothing more to wait for.
bool CollectUntil(const Exchange &exchange, Clock::time_point last, Clock::time_point deadline,
                  std::vector<Answer> &answers) {
  while (std::optional<Answer> answer = NextAnswer(exchange, deadline)) {
    if (!AddAnswer(std::move(*answer), answers)) continue;
    if (exchange.wanted) return false;
    if (!exchange.request.whole_timeout) deadline = std::min(last, Clock::now() + QUIET_TIME);
  }
  return answers.empty() || exchange.request.whole_timeout;
}

// When to send the request again, after it was sent at `now` and so many have answered.
Clock::time_point NextSending(const Exchange &exchange, Clock::time_point now,
                              Clock::time_point last, size_t answered) {
  if (!exchange.request.repeatable) return last;
  const auto elapsed = now - exchange.sent;
  if (exchange.wanted && elapsed >= OFTEN) return now + elapsed;
  return now + REPEAT_INTERVAL + TIME_PER_ANSWER * static_cast<int64_t>(answered);
}

void Collect(const Scope &scope, Exchange &exchange, std::vector<Answer> &answers) {
  Clock::time_point last = exchange.sent + scope.timeout;
  const Clock::time_point limit = last + scope.timeout;
  Clock::time_point next = NextSending(exchange, exchange.sent, last, 0);
  size_t known = 0;
  while (CollectUntil(exchange, last, std::min(next, last), answers)) {
    const Clock::time_point now = Clock::now();
    next = NextSending(exchange, now, last, answers.size());
    if (answers.size() > known)
      last = std::max(last, std::min(limit, std::max(next, now + EXTENSION)));
    known = answers.size();
    if (now >= last || IsCancelled(scope.cancel)) return;
    SendRequest(scope, exchange);
    if (exchange.asked.empty()) return;
  }
}

void WarnOfOverflow(const Scope &scope, const Descriptor &socket) {
  uint32_t memory[SK_MEMINFO_VARS] = {};
  socklen_t size = sizeof(memory);
  if (scope.warn && getsockopt(socket.Get(), SOL_SOCKET, SO_MEMINFO, memory, &size) == 0 &&
      memory[SK_MEMINFO_DROPS] != 0)
    scope.warn("answers were lost: they arrived faster than this machine could read them");
}

// The kernel uses the stricter of both settings.
bool FiltersReversePath(const std::string &interface) {
  int strictest = 0;
  for (const std::string &name : {std::string("all"), interface}) {
    int mode = 0;
    std::ifstream("/proc/sys/net/ipv4/conf/" + name + "/rp_filter") >> mode;
    strictest = std::max(strictest, mode);
  }
  return strictest == 1;
}

}  // namespace

std::vector<Interface> ListInterfaces() {
  ifaddrs *first = nullptr;
  std::vector<Interface> interfaces;
  if (getifaddrs(&first) != 0) return interfaces;
  const std::unique_ptr<ifaddrs, IfAddrsDeleter> list(first);
  for (const ifaddrs *entry = first; entry != nullptr; entry = entry->ifa_next)
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET)
      AddLink(*entry, interfaces);
  for (const ifaddrs *entry = first; entry != nullptr; entry = entry->ifa_next)
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET)
      AddAddress(*entry, interfaces);
  return interfaces;
}

bool IsCancelled(int cancel) {
  pollfd readable = {cancel, POLLIN, 0};
  return cancel >= 0 && poll(&readable, 1, 0) > 0;
}

void Pause(int cancel, std::chrono::microseconds timeout) {
  pollfd readable = {cancel, POLLIN, 0};
  poll(&readable, 1, static_cast<int>(std::chrono::ceil<Milliseconds>(timeout).count()));
}

Outcome Cancelled() {
  return Failure(Result::CANCELLED, "interrupted");
}

std::string NoAnswerHint(const Scope &scope) {
  std::string filtered;
  std::string others;
  for (const Interface &interface : ListInterfaces()) {
    if (!CanBroadcast(interface)) continue;
    const bool asked =
        scope.interface.empty() ? !interface.addresses.empty() : interface.name == scope.interface;
    if (!asked && !interface.addresses.empty())
      others += (others.empty() ? "" : ", ") + interface.name;
    if (asked && FiltersReversePath(interface.name))
      filtered += (filtered.empty() ? "" : ", ") + interface.name;
  }
  if (!filtered.empty())
    return "this machine drops answers from other networks than its own on " + filtered +
           ": reverse-path filtering is on (rp_filter); set net.ipv4.conf.all.rp_filter and the "
           "interface's to 0 or 2";
  return others.empty() ? "" : "the appliance may be on another interface: " + others;
}

Outcome Begin(const Scope &scope, const Request &request, Exchange &exchange) {
  Outcome outcome = ChooseInterfaces(scope.interface, exchange.asked);
  if (!outcome.IsDone()) return outcome;
  exchange.socket = Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  outcome = PrepareSocket(exchange.socket, scope.interface);
  if (!outcome.IsDone()) return outcome;
  for (Interface &interface : exchange.asked)
    interface.mac = scope.src_mac.value_or(interface.mac);
  exchange.request = request;
  exchange.wanted = scope.mac;
  exchange.cancel = scope.cancel;
  exchange.sent = Clock::now();
  SendRequest(scope, exchange);
  if (!exchange.asked.empty()) return outcome;
  return Failure(Result::NO_ANSWER, "the request could not be sent");
}

std::optional<Answer> Await(const Exchange &exchange, std::chrono::microseconds timeout) {
  return NextAnswer(exchange, Clock::now() + timeout);
}

Outcome Ask(const Scope &scope, const Request &request, std::vector<Answer> &answers) {
  Exchange exchange;
  Outcome outcome = Begin(scope, request, exchange);
  if (!outcome.IsDone()) return outcome;
  Collect(scope, exchange, answers);
  if (!scope.mac || answers.empty()) WarnOfOverflow(scope, exchange.socket);
  if (IsCancelled(scope.cancel) && (answers.empty() || !scope.mac)) return Cancelled();
  if (!answers.empty()) return outcome;
  return Failure(Result::NO_ANSWER, "no answer", NoAnswerHint(scope));
}

Outcome AskOne(const Scope &scope, const Request &request, Answer &answer) {
  std::vector<Answer> answers;
  Outcome outcome = Ask(scope, request, answers);
  if (outcome.IsDone()) answer = std::move(answers.front());
  return outcome;
}

}  // namespace acp
