// The order of sources: options, standard input, terminal.

#include "tools/bhctl/password.h"

#include "client/password_hash.h"
#include "tools/bhctl/terminal.h"

namespace bhctl {
namespace {

// After an end of input or an interrupt.
int NoLine(int status) {
  if (status != EXIT_USAGE) return status;
  return UsageFailure("there is no password on standard input");
}

int AskHidden(const Options &options, const char *prompt, std::string &line) {
  const int status = ReadHidden(options.scope.cancel, prompt, line);
  return status == EXIT_DONE ? status : NoLine(status);
}

}  // namespace

int ReadPassword(const Options &options, std::optional<std::string> &password) {
  password = options.password;
  if (options.password || (!options.password_stdin && !IsTerminal())) return EXIT_DONE;
  std::string line;
  const int status = IsTerminal() ? ReadHidden(options.scope.cancel, "Password: ", line)
                                  : ReadLine(options.scope.cancel, line);
  if (status != EXIT_DONE) return NoLine(status);
  password = line;
  return EXIT_DONE;
}

int NeedPassword(const Options &options, std::string &password) {
  std::optional<std::string> read;
  const int status = ReadPassword(options, read);
  if (status == EXIT_DONE && !read)
    return UsageFailure(
        "the administrator's password is required: give --password or --password-stdin");
  password = read.value_or("");
  return status;
}

int NeedPassPhrase(const Options &options, std::string &pass_phrase) {
  pass_phrase = options.pass_phrase;
  if (!pass_phrase.empty()) return EXIT_DONE;
  if (!IsTerminal())
    return UsageFailure("the pass phrase of the command mode is required: give --pass-phrase");
  return AskHidden(options, "Pass phrase: ", pass_phrase);
}

int NeedNewPassword(const Options &options, const std::optional<std::string> &given,
                    std::string &password) {
  password = given.value_or("");
  if (!given) {
    if (!IsTerminal())
      return UsageFailure(
          "the new password is required: give --new-password or BHCTL_NEW_PASSWORD");
    std::string again;
    int status = AskHidden(options, "New password: ", password);
    if (status == EXIT_DONE) status = AskHidden(options, "Repeat new password: ", again);
    if (status != EXIT_DONE) return status;
    if (again != password) return UsageFailure("the passwords differ");
  }
  if (IsNewPassword(password)) return EXIT_DONE;
  return UsageFailure("a new password must have 1 to " + std::to_string(MAX_NEW_PASSWORD) +
                      " ASCII characters: the appliance ignores the rest");
}

Credentials CredentialsOf(const Options &options) {
  Credentials credentials;
  if (!options.pass_phrase.empty()) credentials.pass_phrase = PassPhrase(options.pass_phrase);
  return credentials;
}

int ReadCredentials(const Options &options, Credentials &credentials) {
  std::optional<std::string> password;
  const int status = ReadPassword(options, password);
  credentials = CredentialsOf(options);
  if (password && (options.password || options.password_stdin || !password->empty()))
    credentials.password = AdminPassword(*password);
  return status;
}

}  // namespace bhctl
