// Reads passwords.

#ifndef BH_TOOLS_BHCTL_PASSWORD_H_
#define BH_TOOLS_BHCTL_PASSWORD_H_

#include <optional>
#include <string>

#include "client/credentials.h"
#include "tools/bhctl/options.h"

namespace bhctl {

// The administrator's password: from the options, or from standard input if the options say so.
// Otherwise prompts without echo if standard input is a terminal, or leaves `password` unset.
// Returns EXIT_DONE, or prints an error and returns another ExitStatus.
int ReadPassword(const Options &options, std::optional<std::string> &password);

// The same, but a missing password is an error.
int NeedPassword(const Options &options, std::string &password);

// The pass phrase of the command mode, from the options or the terminal. Returns like ReadPassword.
int NeedPassPhrase(const Options &options, std::string &pass_phrase);

// The administrator's new password: `given`, or else from the terminal, twice. Returns like
// ReadPassword; EXIT_USAGE also for a password that is empty, too long or not ASCII.
int NeedNewPassword(const Options &options, const std::optional<std::string> &given,
                    std::string &password);

// Only the pass phrase, if the options have one.
Credentials CredentialsOf(const Options &options);

// The pass phrase, and the administrator's password from ReadPassword. An empty line on the
// terminal means no password: the appliance may have verified it earlier. Returns like
// ReadPassword.
int ReadCredentials(const Options &options, Credentials &credentials);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_PASSWORD_H_
