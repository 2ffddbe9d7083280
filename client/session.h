// A session with one appliance, for requests that carry passwords: the appliance, the requester and
// the key. The key is valid for half an hour. It is never stored.

#ifndef BH_CLIENT_SESSION_H_
#define BH_CLIENT_SESSION_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/exchange.h"

namespace acp {

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

// Discovers scope.mac, which must be set, in at most 2 seconds. The reply has the key. If a secret
// cannot be encoded under this machine's key, retries from a made-up MAC address.
Outcome OpenSession(const Scope &scope, const std::vector<Secret> &secrets, Session &session);

// The same with the answer to a discovery of the last seconds, which saves another one.
Outcome OpenSession(const Scope &scope, const Answer &discovered,
                    const std::vector<Secret> &secrets, Session &session);

// `scope` for requests of the session: its appliance, its interface, its requester.
Scope SessionScope(const Scope &scope, const Session &session);

}  // namespace acp

#endif  // BH_CLIENT_SESSION_H_
