#include "tools/bhctl/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds INTERVAL{100};
constexpr uint64_t QUARTERS = 4;
constexpr size_t BAR = 20;
constexpr size_t MIN_WIDTH = 40;
constexpr const char *SPINNER = "|/-\\";

std::string Clocked(uint64_t seconds) {
  char text[32];
  snprintf(text, sizeof(text), "%u:%02u", static_cast<unsigned int>(seconds / 60),
           static_cast<unsigned int>(seconds % 60));
  return text;
}

milliseconds Since(Clock::time_point begun) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - begun);
}

// The terminal's, less one: a full line would wrap.
size_t TerminalWidth() {
  winsize size = {};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return std::max<size_t>(known ? size.ws_col : 80, MIN_WIDTH) - 1;
}

std::string BarText(uint64_t sent, uint64_t total) {
  const size_t filled = static_cast<size_t>(sent * BAR / total);
  return std::string("[").append(filled, '#').append(BAR - filled, '-').append("]");
}

// Percents have a fixed width, so the line does not jump.
std::string PercentText(uint64_t sent, uint64_t total) {
  const std::string text = std::to_string(sent * 100 / total) + "%";
  return std::string(4 - std::min<size_t>(text.size(), 4), ' ') + text;
}

}  // namespace

std::string ProgressLine(const std::string &name, uint64_t sent, uint64_t total,
                         milliseconds elapsed, size_t width) {
  const auto spent = static_cast<uint64_t>(elapsed.count());
  std::vector<std::string> parts = {BarText(sent, total), PercentText(sent, total),
                                    SizeText(sent) + " of " + SizeText(total)};
  if (sent != 0 && spent != 0) {
    parts.push_back(SizeText(sent * 1000 / spent) + "/s");
    parts.push_back(Clocked((total - sent) * spent / sent / 1000) + " left");
  }
  std::string line = name;
  for (const std::string &part : parts) {
    if (TextWidth(line) + 2 + part.size() > width) break;
    line += (line.empty() ? "" : "  ") + part;
  }
  return line;
}

ProgressDisplay::ProgressDisplay(const std::vector<std::string> &names, uint64_t total, bool quiet)
    : total_(total), quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1) {
  for (const std::string &name : names) {
    lines_.emplace_back();
    lines_.back().name = names.size() == 1 ? "" : name;
  }
  if (quiet_ || !terminal_) return;
  SetDrawing([this] { Clear(); });
  // The signals are the main thread's.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread_ = std::thread([this] {
    while (!ended_) {
      std::this_thread::sleep_for(INTERVAL);
      Draw();
    }
  });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

ProgressDisplay::~ProgressDisplay() {
  ended_ = true;
  if (!thread_.joinable()) return;
  thread_.join();
  Clear();
  SetDrawing(nullptr);
}

void ProgressDisplay::Sent(size_t number, uint64_t bytes) {
  const std::lock_guard lock(OutputMutex());
  Line &line = lines_[number];
  if (line.state == State::WAITING) {
    line.since = Clock::now();
    line.state = State::SENDING;
  }
  line.sent = bytes;
  const uint64_t quarters = bytes * QUARTERS / total_;
  if (quiet_ || terminal_ || quarters == line.quarters) return;
  line.quarters = quarters;
  fprintf(stderr, "%suploaded %s of %s\n", line.name.empty() ? "" : (line.name + ": ").c_str(),
          (std::to_string(quarters * 100 / QUARTERS) + "%").c_str(), SizeText(total_).c_str());
}

void ProgressDisplay::Says(size_t number, const std::string &phase) {
  const std::lock_guard lock(OutputMutex());
  Line &line = lines_[number];
  line.state = phase.empty() ? State::ENDED : State::PHASE;
  line.phase = phase;
  line.since = Clock::now();
  if (!quiet_ && !terminal_ && !phase.empty())
    fprintf(stderr, "%s%s\n", line.name.empty() ? "" : (line.name + ": ").c_str(), phase.c_str());
}

std::string ProgressDisplay::Text(const Line &line, size_t width) const {
  if (line.state == State::SENDING)
    return ProgressLine(line.name, line.sent, total_, Since(line.since), width);
  const auto elapsed = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(Since(line.since)).count());
  const std::string text = (line.name.empty() ? "" : line.name + "  ") + line.phase + "  " +
                           SPINNER[turn_ % 4] + "  " + Clocked(elapsed);
  return text.substr(0, width);
}

void ProgressDisplay::Draw() {
  const std::lock_guard lock(OutputMutex());
  const size_t width = TerminalWidth();
  std::string text;
  size_t lines = 0;
  ++turn_;
  for (const Line &line : lines_) {
    if (line.state != State::SENDING && line.state != State::PHASE) continue;
    text.append("\x1B[K").append(Text(line, width)).append("\n");
    ++lines;
  }
  fflush(stdout);
  const std::string up = drawn_ == 0 ? "" : std::string("\x1B[") + std::to_string(drawn_) + "A";
  fprintf(stderr, "\r%s%s\x1B[J", up.c_str(), text.c_str());
  drawn_ = lines;
}

void ProgressDisplay::Clear() {
  const std::lock_guard lock(OutputMutex());
  if (drawn_ > 0) fprintf(stderr, "\r\x1B[%zuA\x1B[J", drawn_);
  drawn_ = 0;
}

}  // namespace bhctl
