// Uploads an image to the appliance's receiver over TCP.

#ifndef BH_CLIENT_UPLOAD_H_
#define BH_CLIENT_UPLOAD_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "client/image.h"
#include "client/outcome.h"

namespace acp {

struct Receiver {
  uint32_t address = 0;                  // the most significant byte is the first octet
  std::string interface;                 // of this machine, that reaches the receiver
  std::chrono::microseconds timeout{0};  // without progress
  int cancel = -1;                       // like Scope::cancel
};

// Gets the bytes sent so far, after each piece.
using UploadProgress = std::function<void(uint64_t sent)>;

// Done if the receiver has received the whole image. Retries for 3 seconds while the receiver does
// not listen yet. `progress` may be empty.
Outcome Upload(const Image &image, const Receiver &receiver, const UploadProgress &progress);

// Whether the receiver's host can be reached. Connects to another port than the receiver's, which
// takes one connection only.
Outcome TryReach(const Receiver &receiver);

}  // namespace acp

#endif  // BH_CLIENT_UPLOAD_H_
