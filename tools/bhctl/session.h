// A session with one appliance, for requests that carry passwords: who is asked, by whom, and under
// which key passwords travel. The key lives half an hour on the appliance and is kept nowhere here.

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
  std::string interface;  // of this machine, that leads to it
  Mac src_mac = {};       // the key is issued to it: requests must name it as the requester
  uint32_t key = 0;       // never 0 in an open session
  DiscoverInfo info = {};
  bool invented = false;  // src_mac is no interface's, but a requester with a key of its own
};

// A password, and the bytes that the request has for it.
struct Secret {
  std::string text;
  size_t capacity = MAX_PASSWORD;
  const char *name = "this password";  // in messages
};

// The password as a request carries it, in whole blocks of 8 bytes, at least one; a zero byte must
// follow it in the request unless it fills its capacity. Nothing when the appliance would not
// decode all of it under this key, or for one that is too long or holds a NUL.
std::optional<std::vector<uint8_t>> EncodePassword(const Secret &password, uint32_t key);

// Discovers options.mac, or the only appliance that answers, in at most 2 seconds, and gets a key
// under which each of `passwords` can be encoded; as long as the appliance's key is not such a one,
// discovers again as another requester. Returns EXIT_DONE, or says on standard error what went
// wrong and returns another ExitStatus.
int OpenSession(const Options &options, const std::vector<Secret> &passwords, Session &session);

// `options` for Ask() within the session: to its appliance alone, as its requester.
Options SessionOptions(const Options &options, const Session &session);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_SESSION_H_
