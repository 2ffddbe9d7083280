// Two generations of hardware, each with a driver of its own. The request numbers are the drivers',
// in the encoding of the appliance's processor.

#include "handlers/mac_address.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <string>

#include "acp/packet.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/descriptor.h"
#include "lib/shell.h"

namespace {

using MacAddress = std::array<uint8_t, MAC_SIZE>;

constexpr unsigned long EEPROM_REQUEST = 0x89F5;  // SIOCDEVPRIVATE + 5
constexpr uint8_t INIT_EEPROM = 5;

// What the network driver expects in the data area of an interface request.
struct EepromRequest {
  uint8_t command;
  uint8_t *address;
  uint32_t length;  // of the address
};
static_assert(sizeof(EepromRequest) <= sizeof(ifreq::ifr_ifru));
static_assert(sizeof(void *) != 4 || sizeof(EepromRequest) == 12);

constexpr char ID_DEVICE[] = "/dev/idtinfo";
constexpr struct {
  unsigned long number;
  bool has_address;
} ID_REQUESTS[] = {{0x20005A03, false},
                   {0x20005A01, false},
                   {0x80065A04, true},  // store
                   {0x20005A02, false},
                   {0x80065A06, true}};  // verify

bool IsHexDigit(char character) {
  return isxdigit(static_cast<unsigned char>(character)) != 0;
}

// Takes a number off the front of `text` as scanf's %x does, however long it is. False without one.
bool ScanByte(const char *&text, uint8_t &byte) {
  while (isspace(static_cast<unsigned char>(*text)) != 0)
    ++text;
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && IsHexDigit(text[2])) text += 2;
  const char *end = text;
  while (IsHexDigit(*end))
    ++end;
  if (end == text) return false;
  std::from_chars(end - std::min<ptrdiff_t>(end - text, 2), end, byte, 16);
  if (negative) byte = static_cast<uint8_t>(-byte);
  text = end;
  return true;
}

MacAddress ParseMac(const char *text) {
  MacAddress mac = {};
  for (uint8_t &byte : mac) {
    if (!ScanByte(text, byte) || *text != ':') break;
    ++text;
  }
  return mac;
}

std::string MacText(const uint8_t *mac) {
  return FormatText("%x:%x:%x:%x:%x:%x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

}  // namespace

int32_t OpenIoctlSocket() {
  for (const int family : {AF_INET, AF_IPX, AF_AX25, AF_APPLETALK}) {
    const int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) return fd;
  }
  return -1;
}

int32_t WriteEepromMac(int32_t socket, const char *ifname, const uint8_t *mac) {
  MacAddress address = {};
  std::copy_n(mac, address.size(), address.begin());
  EepromRequest eeprom = {};
  eeprom.command = INIT_EEPROM;
  eeprom.address = address.data();
  eeprom.length = MAC_SIZE;
  ifreq request = {};
  strncpy(request.ifr_name, ifname, sizeof(request.ifr_name) - 1);
  memcpy(&request.ifr_ifru, &eeprom, sizeof(eeprom));
  DebugPrint("%02X:%02X:%02X:%02X:%02X:%02X\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  if (ioctl(socket, EEPROM_REQUEST, &request) >= 0) return 0;
  DebugPrint("KORVO_ETH_IOCTL_INIT_EEPROM: error=%s\n", strerror(errno));
  return -1;
}

int32_t init_mac_address(const char *ifname, const char *text) {
  const Descriptor socket(OpenIoctlSocket());
  if (!socket.IsOpen()) {
    DebugPrint("tulip eeprom_write : socket open err(%08X)\n", static_cast<uint32_t>(socket.Get()));
    return -1;
  }
  const MacAddress mac = ParseMac(text);
  DebugPrint("init_mac_address() ifname=%s mac=%s\n", ifname, MacText(mac.data()).c_str());
  WriteEepromMac(socket.Get(), ifname, mac.data());
  return 0;
}

int32_t write_mac_address_mipsel(const char *text) {
  const Descriptor device(open(ID_DEVICE, O_RDWR | O_CLOEXEC));
  if (!device.IsOpen()) {
    DebugPrint("could not open \"%s\": %s\n", ID_DEVICE, strerror(errno));
    return -1;
  }
  const MacAddress mac = ParseMac(text);
  std::copy(mac.begin(), mac.end(), daemon_state.mac_buffer);
  DebugPrint("MAC = %s\n", MacText(daemon_state.mac_buffer).c_str());

  int results[std::size(ID_REQUESTS)] = {};
  for (size_t i = 0; i < std::size(ID_REQUESTS); ++i) {
    uint8_t *const argument = ID_REQUESTS[i].has_address ? daemon_state.mac_buffer : nullptr;
    results[i] = ioctl(device.Get(), ID_REQUESTS[i].number, argument);
  }
  DebugPrint("VERIFY MAC = %s\n", MacText(daemon_state.mac_buffer).c_str());
  DebugPrint("write_mac_address_mipsel() return ret1=%d ret2=%d ret3=%d ret4=%d ret5=%d\n",
             results[0], results[1], results[2], results[3], results[4]);
  const bool done =
      std::all_of(std::begin(results), std::end(results), [](int r) { return r == 0; });
  return done ? 0 : -1;
}
