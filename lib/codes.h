// Result codes of the library by what is refused or missing, and words that several of its files
// use.

#ifndef BH_LIB_CODES_H_
#define BH_LIB_CODES_H_

#include <cstdint>

constexpr int32_t NO_MEMORY = -1;
constexpr int32_t NOW_LOCKING = -3;     // another process holds the configuration lock
constexpr int32_t NOT_LOCKED = -20000;  // the caller does not hold the configuration lock

constexpr int32_t BAD_DATE_OR_TIME = -101;
constexpr int32_t BAD_HOST_NAME = -108;
constexpr int32_t BAD_NTP_INTERVAL = -110;
constexpr int32_t BAD_NTP_SERVER = -111;
constexpr int32_t BAD_WORKGROUP = -112;
constexpr int32_t NO_WORKGROUP = -113;

constexpr int32_t NO_DHCP_SERVER_SETUP = -399;
constexpr int32_t TOO_MANY_ROUTES = -403;
constexpr int32_t BAD_ADDRESS_MODE = -413;
constexpr int32_t DHCP_NOT_STARTED = -414;
constexpr int32_t BAD_ROUTE_INTERFACE = -417;
constexpr int32_t GATEWAY_OUT_OF_REACH = -418;
constexpr int32_t NO_SUCH_ROUTE = -419;
constexpr int32_t BAD_DESTINATION = -420;
constexpr int32_t ROUTE_EXISTS = -421;
constexpr int32_t DHCP_NOT_RUNNING = -425;
constexpr int32_t BAD_ADDRESS = -430;

// The mode of an interface's record.
constexpr int32_t MODE_STATIC = 0;
constexpr int32_t MODE_DHCP = 1;

// The appliance's information file, of key="value" lines.
constexpr const char *INFO_FILE = "/etc/korvo/info";

#endif  // BH_LIB_CODES_H_
