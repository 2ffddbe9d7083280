// Replies bypass the IP stack, through a packet socket. They must reach the client even when the
// appliance's own address does not fit the client's network.

#include "acp/reply.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>

#include <cerrno>
#include <span>

#include "acp/convert.h"
#include "acp/frame.h"
#include "daemon/interface.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/address.h"
#include "lib/descriptor.h"
#include "lib/libbh.h"

namespace {

constexpr size_t FRAME_HEADERS = ETHERNET_HEADER_SIZE + IP_HEADER_SIZE + UDP_HEADER_SIZE;
constexpr in_addr_t BROADCAST_ADDRESS = 0xFFFFFFFF;
constexpr in_addr_t NO_ADDRESS = 0x01010101;  // 1.1.1.1, the source when the interface has none
constexpr uint8_t BROADCAST_MAC[MAC_SIZE] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

struct sockaddr_ll LinkAddress() {
  struct sockaddr_ll address = {};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_IP);
  address.sll_ifindex = static_cast<int>(if_nametoindex(daemon_state.ifname.c_str()));
  return address;
}

bool BindToInterface(const Descriptor &socket) {
  struct sockaddr_ll address = LinkAddress();
  if (bind(socket.Get(), reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0)
    return true;
  syslog(LOG_NOTICE, "standalone_server > could not bind sock to device %s \n", strerror(errno));
  return false;
}

// A packet socket that may broadcast. None, with the failure logged, when it cannot be had.
Descriptor OpenPacketSocket() {
  Descriptor packets(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP)));
  if (!packets.IsOpen()) {
    syslog(LOG_NOTICE, "start_server could not open socket: %s \n", strerror(errno));
    return packets;
  }
  const int enable = 1;
  if (setsockopt(packets.Get(), SOL_SOCKET, SO_BROADCAST, &enable, sizeof(enable)) == 0)
    return packets;
  syslog(LOG_NOTICE, "start_server could not set broadcast option to socket: %s \n",
         strerror(errno));
  return {};
}

// A packet socket takes the IP stack's requests too. Replies are broadcasts, so that the table is
// never asked for one; SendPacket's callers may name another address.
void LookUpMac(const Descriptor &socket, in_addr_t address, uint8_t *mac) {
  memcpy(mac, BROADCAST_MAC, MAC_SIZE);
  if (address == BROADCAST_ADDRESS) return;

  struct arpreq request = {};
  const struct sockaddr_in target = SocketAddress({address});
  memcpy(&request.arp_pa, &target, sizeof(target));
  CopyInterfaceName(request.arp_dev, sizeof(request.arp_dev));
  if (ioctl(socket.Get(), SIOCGARP, &request) != 0) return;
  if ((request.arp_flags & ATF_COM) == 0) return;  // asked for, not answered yet
  memcpy(mac, request.arp_ha.sa_data, MAC_SIZE);
}

// Fills `frame` around the payload that lies in it behind its headers.
void MakeHeaders(const Descriptor &socket, std::span<uint8_t> frame, in_port_t dst_port,
                 in_addr_t dst_ip, const uint8_t *src_mac) {
  uint8_t dst_mac[MAC_SIZE];
  LookUpMac(socket, dst_ip, dst_mac);
  MakeIpUdpHeader(frame.data() + ETHERNET_HEADER_SIZE, InterfaceAddress(socket.Get(), NO_ADDRESS),
                  dst_ip, htons(ACP_PORT), dst_port,
                  static_cast<uint16_t>(frame.size() - FRAME_HEADERS), daemon_state.ip_id++);
  MakeEthernetHeader(frame.data(), dst_mac, src_mac);
}

void SendFrame(const Descriptor &socket, std::span<const uint8_t> frame) {
  struct sockaddr_ll address = LinkAddress();
  address.sll_halen = MAC_SIZE;
  memcpy(address.sll_addr, BROADCAST_MAC, MAC_SIZE);
  ssize_t sent = -1;
  do {
    sent = sendto(socket.Get(), frame.data(), frame.size(), 0,
                  reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
  } while (sent < 0 && errno == EINTR);
  if (sent >= 0) return;
  const char *reason = strerror(errno);
  syslog(LOG_NOTICE, "cloud not send packet: %s\n", reason);
  DebugPrint("SendPacket error. %s\n", reason);
}

}  // namespace

Reply AllocateReply(size_t body_size) {
  const size_t length = ACP_HEADER_SIZE + body_size;
  return {decltype(Reply::bytes)(static_cast<uint8_t *>(calloc(1, length))), length};
}

int32_t MakeReplyHeader(uint8_t *reply, uint16_t command, uint16_t option_size,
                        const uint8_t *requester_mac, uint32_t result) {
  ACPHeader header = {};
  header.header_size = ACP_HEADER_SIZE;
  header.packet_version = REPLY_VERSION;
  header.command = command;
  header.option_size = option_size;
  const int32_t outcome = libbh_GetMacAddress(daemon_state.ifname.c_str(), header.src_mac);
  memcpy(header.dst_mac, requester_mac, MAC_SIZE);
  header.result = result;
  memcpy(reply, &header, sizeof(header));
  return outcome;
}

int32_t SendReply(const AcpRequest &request, Reply reply, uint16_t command, uint32_t result) {
  const uint16_t option_size = static_cast<uint16_t>(reply.length - ACP_HEADER_SIZE);
  MakeReplyHeader(reply.bytes.get(), command, option_size, RequesterMac(request), result);
  return SendPreparedReply(request, reply.Bytes());
}

int32_t SendState(const AcpRequest &request, uint16_t command, uint32_t state) {
  uint8_t reply[ACP_HEADER_SIZE] = {};
  MakeReplyHeader(reply, command, 0, RequesterMac(request), state);
  return SendPreparedReply(request, reply);
}

int32_t SendPreparedReply(const AcpRequest &request, std::span<uint8_t> reply) {
  SwapAcpHeader(reply, Conversion::TO_WIRE);
  return SendPacket(request.sock, request.peer_port, reply.data(), reply.size(), BROADCAST_ADDRESS,
                    request.if_mac);
}

int32_t SendPacket(int32_t, in_port_t dst_port, const uint8_t *payload, size_t length,
                   in_addr_t dst_ip, const uint8_t *src_mac) {
  if (length == 0 || length > MAX_REPLY) return -1;
  const Descriptor packets = OpenPacketSocket();
  if (!packets.IsOpen()) return -1;
  if (!BindToInterface(packets)) return 0;
  uint8_t buffer[FRAME_HEADERS + MAX_REPLY];
  const std::span<uint8_t> frame = std::span(buffer).first(FRAME_HEADERS + length);
  memcpy(buffer + FRAME_HEADERS, payload, length);
  MakeHeaders(packets, frame, dst_port, dst_ip, src_mac);
  SendFrame(packets, frame);
  return 0;
}
