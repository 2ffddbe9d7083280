// Where passwords come from, and how the account database stores them.

#ifndef BH_TOOLS_BHCTL_PASSWORD_H_
#define BH_TOOLS_BHCTL_PASSWORD_H_

#include <optional>
#include <string>

#include "tools/bhctl/options.h"

namespace bhctl {

// The administrator's: the one that the options give, or a line of standard input if they say so.
// Without either it is asked for when standard input is a terminal, and unset otherwise. What is
// typed does not show. Returns EXIT_DONE, or says what is wrong and returns EXIT_USAGE.
int ReadPassword(const Options &options, std::optional<std::string> &password);

// The same, but unset is wrong too.
int NeedPassword(const Options &options, std::string &password);

// The pass phrase of the command mode, from the options or the terminal. Returns as above.
int NeedPassPhrase(const Options &options, std::string &pass_phrase);

// A new password of the administrator: `given`, or else from the terminal, twice. Returns as above,
// EXIT_USAGE also for one that HashPassword cannot do justice to.
int NeedNewPassword(const std::optional<std::string> &given, std::string &password);

constexpr size_t MAX_NEW_PASSWORD = 8;  // bytes; the rest would not count
constexpr size_t PASSWORD_HASH = 13;    // bytes, the salt among them

// crypt(3)'s DES form; the salt is two characters of "./0-9A-Za-z". Empty when the system lacks it.
std::string HashPassword(const std::string &password, const std::string &salt);
std::string InventSalt();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_PASSWORD_H_
