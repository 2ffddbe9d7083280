// Files of the board under test: written whole, with the directories above them, read whole, gone.

#ifndef BH_TESTS_FILES_H_
#define BH_TESTS_FILES_H_

#include <gtest/gtest.h>

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

}  // namespace fixture

#endif  // BH_TESTS_FILES_H_
