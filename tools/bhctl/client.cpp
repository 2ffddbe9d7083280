// Requests and replies are limited broadcasts, and replies may have any source address. So an
// appliance with an address from another network is reached, too.

#include "tools/bhctl/client.h"

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
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "tools/bhctl/interrupt.h"
#include "tools/bhctl/print.h"

namespace bhctl {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// Answers to a broadcast arrive in a burst. The burst is over after this time without an answer.
constexpr Milliseconds QUIET_TIME{250};
// Holds the burst of a large network. The kernel accounts 1 to 2.5 KB for even a short datagram,
// and doubles the requested size.
constexpr int RECEIVE_BUFFER = 4 * 1024 * 1024;

struct IfAddrsDeleter {
  void operator()(ifaddrs *list) const {
    freeifaddrs(list);
  }
};

int SystemFailure(const std::string &what, int error) {
  PrintError(what + ": " + strerror(error));
  return EXIT_NO_ANSWER;
}

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

// IPv4 entries carry the address's label, which may be "eth0:1".
void MarkIpv4(const ifaddrs &entry, std::vector<Interface> &interfaces) {
  const std::string label = entry.ifa_name;
  const std::string name = label.substr(0, label.find(':'));
  for (Interface &interface : interfaces)
    if (interface.name == name) interface.has_ipv4 = true;
}

// Every Ethernet interface of this machine; empty if the system call fails.
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
      MarkIpv4(*entry, interfaces);
  return interfaces;
}

bool CanBroadcast(const Interface &interface) {
  return (interface.flags & IFF_UP) != 0 && (interface.flags & IFF_BROADCAST) != 0;
}

// A named interface needs no IPv4 address, so a new machine can reach a new appliance.
int ChooseNamed(const std::string &name, std::vector<Interface> &interfaces) {
  if (if_nametoindex(name.c_str()) == 0) {
    PrintError("no such interface: " + name);
    return EXIT_USAGE;
  }
  std::erase_if(interfaces, [&](const Interface &interface) {
    return interface.name != name || !CanBroadcast(interface);
  });
  if (!interfaces.empty()) return EXIT_DONE;
  PrintError("interface " + name +
             " is down, or is not an Ethernet interface that supports broadcast");
  return EXIT_NO_ANSWER;
}

int ChooseInterfaces(const std::string &name, std::vector<Interface> &interfaces) {
  interfaces = ListInterfaces();
  if (!name.empty()) return ChooseNamed(name, interfaces);
  std::erase_if(interfaces, [](const Interface &interface) {
    return !interface.has_ipv4 || !CanBroadcast(interface);
  });
  if (!interfaces.empty()) return EXIT_DONE;
  PrintError("no usable interface: none is up, supports broadcast and has an IPv4 address");
  return EXIT_NO_ANSWER;
}

// SO_RCVBUFFORCE exceeds the system's limit, but needs CAP_NET_ADMIN.
void WidenReceiveBuffer(const Descriptor &socket) {
  constexpr socklen_t SIZE = sizeof(RECEIVE_BUFFER);
  if (setsockopt(socket.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, SIZE) != 0)
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, SIZE);
}

// Any local port will do: the appliance replies to the port that the request came from. Binds the
// socket to `interface` unless that is empty.
int PrepareSocket(const Descriptor &socket, const std::string &interface) {
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
  return EXIT_DONE;
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
void SendRequest(const Descriptor &socket, const Request &request, const Mac &dst_mac,
                 std::vector<Interface> &interfaces) {
  std::erase_if(interfaces, [&](const Interface &interface) {
    if (SendOn(socket, interface.index, EncodeRequest(request, interface.mac, dst_mac)))
      return false;
    PrintError("cannot send on " + interface.name + ": " + strerror(errno));
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

bool WaitReadable(const Descriptor &socket, const Descriptor &interrupt,
                  Clock::time_point deadline) {
  const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
  pollfd watched[] = {{socket.Get(), POLLIN, 0}, {interrupt.Get(), POLLIN, 0}};
  if (poll(watched, 2, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) return false;
  return watched[0].revents != 0;
}

// Waits for one datagram until `deadline` or an interrupt. Returns nullopt if none came or if it is
// malformed. Reads before it polls, so a burst costs one system call per datagram.
std::optional<Reply> ReceiveReply(const Exchange &exchange, Clock::time_point deadline,
                                  const Descriptor &interrupt, int &interface_index) {
  uint8_t datagram[MAX_REPLY + 1];  // one more byte reveals a longer one
  ssize_t length = ReceiveNow(exchange.socket, datagram, interface_index);
  if (length < 0) {
    if (!WaitReadable(exchange.socket, interrupt, deadline)) return std::nullopt;
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

std::optional<Answer> NextAnswer(const Exchange &exchange, Clock::time_point deadline,
                                 const Descriptor &interrupt) {
  const std::vector<Mac> own_macs = OwnMacs(exchange.asked);
  while (Clock::now() < deadline && !Interrupted(interrupt)) {
    int index = 0;
    const std::optional<Reply> reply = ReceiveReply(exchange, deadline, interrupt, index);
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

void Collect(const Exchange &exchange, std::chrono::microseconds timeout,
             std::vector<Answer> &answers) {
  const Clock::time_point last = exchange.sent + timeout;
  Clock::time_point deadline = last;
  while (std::optional<Answer> answer = NextAnswer(exchange, deadline, Descriptor())) {
    if (!AddAnswer(std::move(*answer), answers)) continue;
    if (exchange.wanted) return;
    if (!exchange.request.whole_timeout) deadline = std::min(last, Clock::now() + QUIET_TIME);
  }
}

void WarnOfOverflow(const Descriptor &socket) {
  uint32_t memory[SK_MEMINFO_VARS] = {};
  socklen_t size = sizeof(memory);
  if (getsockopt(socket.Get(), SOL_SOCKET, SO_MEMINFO, memory, &size) == 0 &&
      memory[SK_MEMINFO_DROPS] != 0)
    PrintError("answers were lost: they arrived faster than this machine could read them");
}

}  // namespace

int Begin(const Options &options, const Request &request, Exchange &exchange) {
  int status = ChooseInterfaces(options.interface, exchange.asked);
  if (status != EXIT_DONE) return status;
  exchange.socket = Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  status = PrepareSocket(exchange.socket, options.interface);
  if (status != EXIT_DONE) return status;
  for (Interface &interface : exchange.asked)
    interface.mac = options.src_mac.value_or(interface.mac);
  exchange.request = request;
  exchange.wanted = options.mac;
  exchange.sent = Clock::now();
  SendRequest(exchange.socket, request, options.mac.value_or(BROADCAST_MAC), exchange.asked);
  return exchange.asked.empty() ? EXIT_NO_ANSWER : EXIT_DONE;
}

std::optional<Answer> Await(const Exchange &exchange, std::chrono::microseconds timeout,
                            const Descriptor &interrupt) {
  return NextAnswer(exchange, Clock::now() + timeout, interrupt);
}

int Ask(const Options &options, const Request &request, std::vector<Answer> &answers) {
  Exchange exchange;
  const int status = Begin(options, request, exchange);
  if (status != EXIT_DONE) return status;
  Collect(exchange, options.timeout, answers);
  if (!options.mac || answers.empty()) WarnOfOverflow(exchange.socket);
  if (!answers.empty()) return EXIT_DONE;
  PrintError("no answer");
  return EXIT_NO_ANSWER;
}

int AskOne(const Options &options, const Request &request, Answer &answer) {
  std::vector<Answer> answers;
  const int status = Ask(options, request, answers);
  if (status == EXIT_DONE) answer = std::move(answers.front());
  return status;
}

}  // namespace bhctl
