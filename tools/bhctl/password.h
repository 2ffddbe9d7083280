// Reads passwords, and hashes them for the account database.

#ifndef BH_TOOLS_BHCTL_PASSWORD_H_
#define BH_TOOLS_BHCTL_PASSWORD_H_

#include <optional>
#include <string>

#include "tools/bhctl/options.h"

namespace bhctl {

// The administrator's password: from the options, or from standard input if the options say so.
// Otherwise prompts without echo if standard input is a terminal, or leaves `password` unset.
// Returns EXIT_DONE, or prints an error and returns EXIT_USAGE.
int ReadPassword(const Options &options, std::optional<std::string> &password);

// The same, but a missing password is an error.
int NeedPassword(const Options &options, std::string &password);

// The pass phrase of the command mode, from the options or the terminal. Returns like ReadPassword.
int NeedPassPhrase(const Options &options, std::string &pass_phrase);

// The administrator's new password: `given`, or else from the terminal, twice. Returns like
// ReadPassword; EXIT_USAGE also for a password that is empty, too long or not ASCII.
int NeedNewPassword(const std::optional<std::string> &given, std::string &password);

constexpr size_t MAX_NEW_PASSWORD = 8;  // bytes; crypt(3) ignores the rest
constexpr size_t PASSWORD_HASH = 13;    // bytes, including the salt

// The DES form of crypt(3). The salt is two characters of "./0-9A-Za-z". Returns an empty string if
// the system does not support it.
std::string HashPassword(const std::string &password, const std::string &salt);
std::string RandomSalt();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_PASSWORD_H_
