// Files of the board under test: written whole, with the directories above them, read whole, gone.

#ifndef BH_TESTS_FILES_H_
#define BH_TESTS_FILES_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

namespace fixture {

inline void WriteFile(const std::string &path, std::string_view content) {
  std::error_code ignored;  // the open below tells
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  FILE *file = fopen(path.c_str(), "we");
  ASSERT_NE(file, nullptr) << path;
  const size_t written = fwrite(content.data(), 1, content.size(), file);
  EXPECT_EQ(fclose(file), 0) << path;
  EXPECT_EQ(written, content.size()) << path;
}

// An unreadable file is a failure of the test and reads as an empty text.
inline std::string ReadFile(const std::string &path) {
  std::string content;
  FILE *file = fopen(path.c_str(), "re");
  EXPECT_NE(file, nullptr) << path;
  if (file == nullptr) {
    return content;
  }
  char chunk[4096];
  size_t length = 0;
  while ((length = fread(chunk, 1, sizeof(chunk), file)) > 0) {
    content.append(chunk, length);
  }
  fclose(file);
  return content;
}

// Removes a file or an empty directory; none there is as good.
inline void RemoveFile(const std::string &path) {
  std::error_code error;
  std::filesystem::remove(path, error);
  EXPECT_FALSE(error) << path << ": " << error.message();
}

}  // namespace fixture

#endif  // BH_TESTS_FILES_H_
