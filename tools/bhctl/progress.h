// Shows how an upload and an installation go on: a bar on a terminal, lines elsewhere.

#ifndef BH_TOOLS_BHCTL_PROGRESS_H_
#define BH_TOOLS_BHCTL_PROGRESS_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace bhctl {

// "nas1  [#####-----]  73%  12.3 MB of 16.7 MB  9.8 MB/s  0:01 left" in `width` columns; parts that
// do not fit are left out. Without the rate while it is unknown.
std::string ProgressLine(const std::string &name, uint64_t sent, uint64_t total,
                         std::chrono::milliseconds elapsed, size_t width);

// The lines of several appliances, drawn by a thread of its own on standard error.
class ProgressDisplay {
 public:
  // `total`: bytes of the image. Draws nothing if `quiet`.
  ProgressDisplay(const std::vector<std::string> &names, uint64_t total, bool quiet);
  ~ProgressDisplay();
  ProgressDisplay(const ProgressDisplay &) = delete;
  ProgressDisplay &operator=(const ProgressDisplay &) = delete;

  // From any thread. `number`: of the name.
  void Sent(size_t number, uint64_t bytes);
  void Says(size_t number, const std::string &phase);  // "installing"; empty: ended

 private:
  // Guarded by OutputMutex.
  enum class State { WAITING, SENDING, PHASE, ENDED };
  struct Line {
    std::string name;
    State state = State::WAITING;
    uint64_t sent = 0;
    std::string phase;
    std::chrono::steady_clock::time_point since = {};
    uint64_t quarters = 0;  // already told without a terminal
  };

  std::string Text(const Line &line, size_t width) const;
  void Draw();
  void Clear();

  std::vector<Line> lines_;
  uint64_t total_;
  bool quiet_;
  bool terminal_;
  size_t drawn_ = 0;  // lines on the terminal
  size_t turn_ = 0;   // of the spinner
  std::atomic<bool> ended_ = false;
  std::thread thread_;
};

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_PROGRESS_H_
