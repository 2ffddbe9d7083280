// Brings an image to the appliance's receiver over TCP, and shows how far it is.

#ifndef BH_TOOLS_BHCTL_UPLOAD_H_
#define BH_TOOLS_BHCTL_UPLOAD_H_

#include <chrono>
#include <cstdint>
#include <string>

#include "lib/descriptor.h"
#include "tools/bhctl/image.h"

namespace bhctl {

struct Receiver {
  uint32_t address = 0;                   // its most significant byte is the first octet
  std::string interface;                  // of this machine, that leads to it
  std::chrono::microseconds patience{0};  // with a peer that stands still
};

// True once the receiver has taken all of the image that OpenImage saw. Otherwise says what went
// wrong; so too when there is something to read from `interrupt`. A receiver that does not listen
// yet has 3 seconds. Progress goes to standard error unless `quiet`.
bool Upload(const Image &image, const Receiver &receiver, bool quiet, const Descriptor &interrupt,
            std::string &why);

// "  12.3 MB of 16.7 MB  73%  9.8 MB/s  0:01 left", without a rate while there is none.
std::string ProgressText(uint64_t sent, uint64_t total, std::chrono::milliseconds elapsed);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_UPLOAD_H_
