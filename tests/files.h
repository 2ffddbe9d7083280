// What tests on a board share: files written whole, with the directories above them, read whole,
// gone; and what a daemon in this process may not lose, its descriptors and its children's
// statuses.

#ifndef BH_TESTS_FILES_H_
#define BH_TESTS_FILES_H_

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace fixture {

inline void WriteFile(const std::string &path, std::string_view content) {
  std::error_code ignored;  // the write below tells
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  EXPECT_TRUE(std::ofstream(path) << content << std::flush) << path;
}

// An unreadable file is a failure of the test and reads as an empty text.
inline std::string ReadFile(const std::string &path) {
  std::ifstream file(path);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

// Removes a file or an empty directory; none there is as good.
inline void RemoveFile(const std::string &path) {
  std::error_code error;
  std::filesystem::remove(path, error);
  EXPECT_FALSE(error) << path << ": " << error.message();
}

inline std::ptrdiff_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

// Returns once the child has ended, and leaves it to be reaped.
inline siginfo_t AwaitEnd(pid_t child) {
  siginfo_t info = {};
  while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR)
    continue;
  return info;
}

}  // namespace fixture

#endif  // BH_TESTS_FILES_H_
