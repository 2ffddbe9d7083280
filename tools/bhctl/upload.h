// Uploads an image to the appliance's receiver over TCP and shows the progress.

#ifndef BH_TOOLS_BHCTL_UPLOAD_H_
#define BH_TOOLS_BHCTL_UPLOAD_H_

#include <chrono>
#include <cstdint>
#include <string>

#include "lib/descriptor.h"
#include "tools/bhctl/image.h"

namespace bhctl {

struct Receiver {
  uint32_t address = 0;                  // the most significant byte is the first octet
  std::string interface;                 // of this machine, that reaches the receiver
  std::chrono::microseconds timeout{0};  // without progress
};

// Returns true if the receiver has received the whole image. Otherwise, and when `interrupt`
// becomes readable, returns false with the reason in `why`. Retries for 3 seconds while the
// receiver does not listen yet. Progress goes to standard error unless `quiet`.
bool Upload(const Image &image, const Receiver &receiver, bool quiet, const Descriptor &interrupt,
            std::string &why);

// "  12.3 MB of 16.7 MB  73%  9.8 MB/s  0:01 left", without the rate while it is unknown.
std::string ProgressText(uint64_t sent, uint64_t total, std::chrono::milliseconds elapsed);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_UPLOAD_H_
