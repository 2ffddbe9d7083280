// A session with one appliance, for requests that carry passwords: the appliance, the requester and
// the key. The key is valid for half an hour. bhctl does not store it.

#ifndef BH_TOOLS_BHCTL_SESSION_H_
#define BH_TOOLS_BHCTL_SESSION_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"

namespace bhctl {

constexpr size_t MAX_PASSWORD = 32;  // bytes

struct Session {
  Mac mac = {};           // of the appliance
  std::string interface;  // of this machine, that reaches the appliance
  Mac src_mac = {};       // the requester's: the key is valid only for it
  uint32_t key = 0;       // never 0 in an open session
  DiscoverInfo info = {};
  bool made_up_mac = false;  // src_mac is not an interface's
};

// A password, and its maximum length in the request.
struct Secret {
  std::string text;
  size_t capacity = MAX_PASSWORD;
  const char *name = "this password";  // in messages
};

// Encodes the password in blocks of 8 bytes, at least one. In the request a zero byte must follow,
// unless the password fills its capacity. Returns nullopt if the appliance could not decode all of
// it, or if it is too long or has a NUL.
std::optional<std::vector<uint8_t>> EncodePassword(const Secret &password, uint32_t key);

// Discovers options.mac, or the only appliance that answers, in at most 2 seconds. The reply has
// the key. If a password cannot be encoded under this machine's key, bhctl retries from a made-up
// MAC address. Returns EXIT_DONE, or prints an error and returns another ExitStatus.
int OpenSession(const Options &options, const std::vector<Secret> &passwords, Session &session);

// `options` for requests of the session: its appliance, its interface, its requester.
Options SessionOptions(const Options &options, const Session &session);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_SESSION_H_
