// The DHCP client's command lines.

#ifndef BH_LIB_DEV_CTL_DHCP_H_
#define BH_LIB_DEV_CTL_DHCP_H_

// Run the command for the interface and wait for it. Starting takes up to 10 seconds; stopping does
// not wait for the client's end.
void RunDhcpStart(const char *interface);
void RunDhcpStop(const char *interface);

#endif  // BH_LIB_DEV_CTL_DHCP_H_
