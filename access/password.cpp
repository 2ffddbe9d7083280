// Password checks against crypt(3) hashes of every kind that the platform knows.

#include "access/password.h"

#include <crypt.h>
#include <pwd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/text.h"

namespace {

constexpr char EMPTY_PASSWORD_HASH[] = "Tq8.Rw3mZbK/c";
constexpr char ROOT_ENTRY[] = "root:";
constexpr size_t MAX_HASH = 255;

// The password's hash made with the salt of the hash `stored`. Empty when there is none: crypt(3)
// refuses salts that it does not know with a null pointer. Empty as well when it is too long to be
// compared.
std::string Hash(const char *password, const std::string &stored) {
  const auto workspace = std::make_unique<struct crypt_data>();
  const char *hash =
      password == nullptr ? nullptr : crypt_r(password, stored.c_str(), workspace.get());
  return hash == nullptr || strlen(hash) > MAX_HASH ? "" : hash;
}

// Some platforms refuse a salt with a text that begins with a star instead, and so do accounts that
// are locked.
int32_t Compare(const std::string &candidate, const std::string &stored) {
  const bool is_hash = !candidate.empty() && candidate[0] != '*';
  return is_hash && candidate == stored ? 0 : -1;
}

// Empty unless the first line is root's and has a hash that fits. Blanks before it are passed over.
std::string ReadRootHash(FILE *file) {
  for (const char *expected = ROOT_ENTRY; *expected != '\0'; ++expected)
    if (fgetc(file) != *expected) return {};
  int next = fgetc(file);
  while (next != '\n' && isspace(next) != 0)
    next = fgetc(file);
  std::string hash;
  while (next != EOF && isspace(next) == 0) {
    if (hash.size() == MAX_HASH) return {};
    hash.push_back(static_cast<char>(next));
    next = fgetc(file);
  }
  return hash;
}

// The hash field of the user's account. The enumeration is always ended, so that the next one
// begins with the first account, of the database as it then is.
std::optional<std::string> FindHash(const char *user) {
  std::optional<std::string> hash;
  std::vector<char> texts(1024);  // of one account
  struct passwd record = {};
  struct passwd *account = nullptr;
  while (!hash) {
    const int error = getpwent_r(&record, texts.data(), texts.size(), &account);
    if (error == ERANGE)
      texts.resize(2 * texts.size());  // and the same account once more
    else if (error != 0)
      break;
    else if (strcmp(account->pw_name, user) == 0)
      hash = account->pw_passwd;
  }
  endpwent();
  return hash;
}

}  // namespace

int32_t CheckPassword(const char *password) {
  return is_zeph_product() ? CheckPassword_NEW("admin", password)
                           : CheckPassword_OLD("root", password);
}

int32_t CheckPassword_OLD(const char * /*user*/, const char *password) {
  DebugPrint("CheckPassword_OLD().\n");
  FilePtr file(fopen(daemon_state.password_file, "re"));
  if (!file) return 0;
  const std::string stored = ReadRootHash(file.get());
  file.reset();

  const bool empty = password == nullptr || password[0] == '\0';
  const std::string candidate = empty ? EMPTY_PASSWORD_HASH : Hash(password, stored);
  DebugPrint("check_pass=\"%s\"\n", candidate.c_str());
  DebugPrint("root_pass =\"%s\"\n", stored.c_str());
  return Compare(candidate, stored);
}

int32_t CheckPassword_NEW(const char *user, const char *password) {
  DebugPrint("CheckPassword_NEW().\n");
  const std::optional<std::string> stored = FindHash(user);
  if (!stored) return -1;

  const std::string candidate = Hash(password, *stored);
  DebugPrint("check_pass=\"%s\"\n", candidate.c_str());
  DebugPrint("true_pass =\"%s\"\n", stored->c_str());
  return Compare(candidate, *stored);
}
