// The order of sources: options, standard input, terminal.

#include "tools/bhctl/password.h"

#include <crypt.h>

#include <algorithm>
#include <memory>
#include <random>

#include "tools/bhctl/terminal.h"

namespace bhctl {
namespace {

// After an end of input.
int NoLine() {
  return UsageFailure("there is no password on standard input");
}

bool IsNewPassword(const std::string &password) {
  return !password.empty() && password.size() <= MAX_NEW_PASSWORD &&
         std::all_of(password.begin(), password.end(),
                     [](char byte) { return byte >= ' ' && byte <= '~'; });
}

}  // namespace

int ReadPassword(const Options &options, std::optional<std::string> &password) {
  password = options.password;
  if (options.password || (!options.password_stdin && !IsTerminal())) return EXIT_DONE;
  std::string line;
  if (!(IsTerminal() ? ReadHidden("Password: ", line) : ReadLine(line))) return NoLine();
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
  return ReadHidden("Pass phrase: ", pass_phrase) ? EXIT_DONE : NoLine();
}

int NeedNewPassword(const std::optional<std::string> &given, std::string &password) {
  password = given.value_or("");
  if (!given) {
    if (!IsTerminal())
      return UsageFailure(
          "the new password is required: give --new-password or BHCTL_NEW_PASSWORD");
    std::string again;
    if (!ReadHidden("New password: ", password) || !ReadHidden("Repeat new password: ", again))
      return NoLine();
    if (again != password) return UsageFailure("the passwords differ");
  }
  if (IsNewPassword(password)) return EXIT_DONE;
  return UsageFailure("a new password must have 1 to " + std::to_string(MAX_NEW_PASSWORD) +
                      " ASCII characters: the appliance ignores the rest");
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

}  // namespace bhctl
