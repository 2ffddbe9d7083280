#include "client/format.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "lib/address.h"

namespace acp {
namespace {

struct NamedState {
  uint32_t state;
  const char *name;
};

constexpr NamedState STATES[] = {
    {ACP_STATE_OK, "ACP_STATE_OK"},
    {ACP_STATE_FAILURE, "ACP_STATE_FAILURE"},
    {ACP_STATE_PASSWORD_ERROR, "ACP_STATE_PASSWORD_ERROR"},
    {ACP_STATE_NO_KEY, "ACP_STATE_NO_KEY"},
    {ACP_STATE_NOT_SUPPORT, "ACP_STATE_NOT_SUPPORT"},
    {ACP_STATE_NOW_LOCKING, "ACP_STATE_NOW_LOCKING"},
    {ACP_STATE_NOT_PERMIT, "ACP_STATE_NOT_PERMIT"},
    {ACP_STATE_TEST_FAIL, "ACP_STATE_TEST_FAIL"},
    {ACP_STATE_NO_SPACE, "ACP_STATE_NO_SPACE"},
    {ACP_STATE_BAD_PRODUCT, "ACP_STATE_BAD_PRODUCT"},
    {ACP_STATE_BAD_FIRM_TYPE, "ACP_STATE_BAD_FIRM_TYPE"},
};

int HexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<Mac> ParseMac(std::string_view text) {
  constexpr size_t GROUP = 3;  // two digits and a separator
  if (text.size() != MAC_SIZE * GROUP - 1) return std::nullopt;
  if (text[2] != ':' && text[2] != '-') return std::nullopt;
  Mac mac = {};
  for (size_t i = 0; i < MAC_SIZE; ++i) {
    const int high = HexDigit(text[i * GROUP]);
    const int low = HexDigit(text[i * GROUP + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    if (i + 1 < MAC_SIZE && text[i * GROUP + 2] != text[2]) return std::nullopt;
    mac[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return mac;
}

std::string MacText(const Mac &mac) {
  char text[18];
  snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
           mac[4], mac[5]);
  return text;
}

std::string AddressText(uint32_t address) {
  return Dotted(AddressOf(address));
}

std::optional<uint32_t> ParseAddress(const std::string &text) {
  in_addr address = {};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::string StateName(uint32_t state) {
  const auto *found = std::find_if(std::begin(STATES), std::end(STATES),
                                   [=](const NamedState &named) { return named.state == state; });
  if (found != std::end(STATES)) return found->name;
  char text[11];
  snprintf(text, sizeof(text), "0x%08" PRIX32, state);
  return text;
}

// strerror is not safe in several threads.
std::string ErrorText(int error) {
  const char *text = strerrordesc_np(error);
  return text == nullptr ? "error " + std::to_string(error) : text;
}

std::string HexText(uint32_t number) {
  char text[11];
  snprintf(text, sizeof(text), "0x%" PRIx32, number);
  return text;
}

std::string WordText(uint32_t word) {
  char text[11];
  snprintf(text, sizeof(text), "0x%08" PRIx32, word);
  return text;
}

}  // namespace acp
