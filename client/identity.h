// An appliance's network identity: address, names, clock. All of it changes in one request.

#ifndef BH_CLIENT_IDENTITY_H_
#define BH_CLIENT_IDENTITY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/exchange.h"
#include "client/session.h"

namespace acp {

struct DateTime {
  uint16_t year = 0;
  uint16_t month = 0;
  uint16_t day = 0;
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
};

// The settings to change.
struct IdentityChange {
  std::optional<uint32_t> address;  // needs a netmask; with `dhcp`, the fallback
  uint32_t netmask = 0;
  bool dhcp = false;
  std::string host_name;  // empty: unchanged
  std::string workgroup;
  std::optional<DateTime> time;  // local
  bool now = false;              // use this machine's time
  std::optional<uint32_t> gateway;
  std::optional<int32_t> timezone;  // UTC minus local time, in minutes
  bool initialized = false;
};

// What the appliance would take without a word, but cannot use. Result::INVALID tells what.
Outcome CheckIdentity(const IdentityChange &change);

bool ChangesAddress(const IdentityChange &change);

Request MakeChangeRequest(const IdentityChange &change);

// Sends the change in an authorised session. It is not repeated: only the answer may be lost.
Outcome ChangeIdentity(const Scope &scope, const Session &session, const IdentityChange &change);

// A setting that the appliance did not take.
struct NotTaken {
  std::string setting;  // "address", "host name", ...
  std::string wanted;
  std::string found;
};

// Discovers the appliance after the change, at any address, and stores what it does not show. It
// answers only when it is through with the change. An address by DHCP and the time zone cannot be
// compared.
Outcome VerifyIdentity(const Scope &scope, const Session &session, const IdentityChange &change,
                       std::vector<NotTaken> &missing, DiscoverInfo &found);

}  // namespace acp

#endif  // BH_CLIENT_IDENTITY_H_
