#include "client/password_hash.h"

#include <crypt.h>

#include <algorithm>
#include <memory>
#include <random>

namespace acp {

bool IsNewPassword(const std::string &password) {
  return !password.empty() && password.size() <= MAX_NEW_PASSWORD &&
         std::all_of(password.begin(), password.end(),
                     [](char byte) { return byte >= ' ' && byte <= '~'; });
}

std::string HashPassword(const std::string &password, const std::string &salt) {
  const auto memory = std::make_unique<crypt_data>();  // 32 KB
  const char *hash = crypt_r(password.c_str(), salt.c_str(), memory.get());
  if (hash == nullptr) return "";
  const std::string text = hash;
  return text.size() == PASSWORD_HASH && text.starts_with(salt) ? text : "";
}

std::string RandomSalt() {
  constexpr char CHARACTERS[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  std::random_device random;
  std::uniform_int_distribution<size_t> pick(0, sizeof(CHARACTERS) - 2);
  std::string salt;
  while (salt.size() < 2)
    salt += CHARACTERS[pick(random)];
  return salt;
}

}  // namespace acp
