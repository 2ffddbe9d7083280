// The word numbers are those of ATA IDENTIFY DEVICE.

#include "client/drive.h"

#include <algorithm>
#include <iterator>

namespace acp {
namespace {

constexpr size_t SERIAL_FIRST = 10;
constexpr size_t SERIAL_LAST = 19;
constexpr size_t FIRMWARE_FIRST = 23;
constexpr size_t FIRMWARE_LAST = 26;
constexpr size_t MODEL_FIRST = 27;
constexpr size_t MODEL_LAST = 46;
constexpr size_t SECTORS_28BIT = 60;
constexpr size_t FEATURES = 83;
constexpr uint16_t FEATURE_48BIT = 1U << 10;
constexpr size_t SECTORS_48BIT = 100;
constexpr uint64_t SECTOR_SIZE = 512;

char Printable(int byte) {
  return byte >= 0x20 && byte <= 0x7E ? static_cast<char>(byte) : '?';
}

// The high byte of a word is the first character. Drives pad with blanks, some with NULs.
std::string WordsText(const DiskInfo &info, size_t first, size_t last) {
  std::string bytes;
  for (size_t i = first; i <= last; ++i) {
    bytes += static_cast<char>(info.words[i] >> 8);
    bytes += static_cast<char>(info.words[i] & 0xFF);
  }
  const std::string padding(" \0", 2);
  const size_t begin = bytes.find_first_not_of(padding);
  if (begin == std::string::npos) return "";
  std::string text = bytes.substr(begin, bytes.find_last_not_of(padding) - begin + 1);
  std::transform(text.begin(), text.end(), text.begin(), Printable);
  return text;
}

// The least significant word comes first.
uint64_t WordsNumber(const DiskInfo &info, size_t first, size_t count) {
  uint64_t number = 0;
  for (size_t i = count; i > 0; --i)
    number = number << 16 | info.words[first + i - 1];
  return number;
}

}  // namespace

DriveIdentity IdentifyDrive(const DiskInfo &info) {
  DriveIdentity drive;
  drive.model = WordsText(info, MODEL_FIRST, MODEL_LAST);
  drive.serial = WordsText(info, SERIAL_FIRST, SERIAL_LAST);
  drive.firmware = WordsText(info, FIRMWARE_FIRST, FIRMWARE_LAST);
  drive.sectors = (info.words[FEATURES] & FEATURE_48BIT) != 0 ? WordsNumber(info, SECTORS_48BIT, 4)
                                                              : WordsNumber(info, SECTORS_28BIT, 2);
  return drive;
}

bool HasDriveInformation(const DiskInfo &info) {
  return std::any_of(std::begin(info.words), std::end(info.words),
                     [](uint16_t word) { return word != 0; });
}

uint64_t DriveBytes(const DriveIdentity &drive) {
  return drive.sectors > UINT64_MAX / SECTOR_SIZE ? UINT64_MAX : drive.sectors * SECTOR_SIZE;
}

}  // namespace acp
