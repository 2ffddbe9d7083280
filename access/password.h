// Whether a clear-text password is the appliance's administrator password. Nothing is kept between
// calls: a password that another program changed counts from the next call on.
//
// All return 0 when the password is accepted, else -1. A hash of more than 255 characters, an empty
// one and one that crypt(3) refuses, such as the "*" of a locked account, accept no password.

#ifndef BH_ACCESS_PASSWORD_H_
#define BH_ACCESS_PASSWORD_H_

#include <cstdint>

// By the system's account "admin" on products 0x2001 and 0x2002, by the web server's file
// elsewhere.
int32_t CheckPassword(const char *password);

// By the hash on the first line, "root:<hash>", of the file daemon_state.password_file; `user` is
// not consulted. Accepts every password when the file cannot be opened, none when it opens and is
// anything else. An empty or null password is accepted only for the one hash that stands for it.
int32_t CheckPassword_OLD(const char *user, const char *password);

// By the hash in the account database's entry of `user`; a shadow file is not looked at. Nobody
// else may be enumerating accounts meanwhile.
int32_t CheckPassword_NEW(const char *user, const char *password);

#endif  // BH_ACCESS_PASSWORD_H_
