// Hashes passwords for the appliance's account database.

#ifndef BH_CLIENT_PASSWORD_HASH_H_
#define BH_CLIENT_PASSWORD_HASH_H_

#include <string>

namespace acp {

// 1 to MAX_NEW_PASSWORD printable ASCII characters.
bool IsNewPassword(const std::string &password);

constexpr size_t MAX_NEW_PASSWORD = 8;  // bytes; crypt(3) ignores the rest
constexpr size_t PASSWORD_HASH = 13;    // bytes, including the salt

// The DES form of crypt(3). The salt is two characters of "./0-9A-Za-z". Returns an empty string if
// the system does not support it.
std::string HashPassword(const std::string &password, const std::string &salt);
std::string RandomSalt();

}  // namespace acp

#endif  // BH_CLIENT_PASSWORD_HASH_H_
