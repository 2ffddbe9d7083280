// Programming of the appliance's own Ethernet address, once, on the production line. The interface
// keeps its present address until the hardware reads the new one.

#ifndef BH_HANDLERS_MAC_ADDRESS_H_
#define BH_HANDLERS_MAC_ADDRESS_H_

#include <cstdint>

// The text is six hexadecimal numbers with colons between them. The low 8 bits of each number
// count; missing numbers are 0.

// Through the network interface `ifname` into its controller's EEPROM. 0, also when the driver
// refused; -1 when there is no socket.
int32_t init_mac_address(const char *ifname, const char *text);

// Through /dev/idtinfo, on products 5, 6 and 7. Leaves in daemon_state.mac_buffer what the device
// verified. 0, or -1 when the device cannot be opened or refused a step.
int32_t write_mac_address_mipsel(const char *text);

// A datagram socket, for interface ioctls, of the first address family that the system has. -1 when
// it has none.
int32_t OpenIoctlSocket();

// Stores the 6 bytes at `mac` in the EEPROM. 0 or -1.
int32_t WriteEepromMac(int32_t socket, const char *ifname, const uint8_t *mac);

#endif  // BH_HANDLERS_MAC_ADDRESS_H_
