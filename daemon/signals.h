// The daemon's signal handlers, and the points at which a requested exit may run.

#ifndef BH_DAEMON_SIGNALS_H_
#define BH_DAEMON_SIGNALS_H_

#include <cstdint>

// Installs kv_serv_exit for SIGHUP, SIGTERM and SIGSEGV and sigusr1_handler for SIGUSR1.
void InstallSignalHandlers();

// Installs sigchld_handler. Returns -1 with errno set when that fails.
int32_t InstallChildHandler();

// Makes this process the server: it alone removes the pid file and logs its exit. All others that
// inherit the handlers from then on are its children.
void ClaimServer();

// Exit routine; `code` is the signal number. Removes the pid file and ends the server with status
// 0, at once or at the next wait. SIGHUP and SIGTERM are refused while a firmware image is being
// written; those that come before or after it in an installation count when the client has its last
// answer.
void kv_serv_exit(int code);

// Bracket the server's waits for a datagram, a child or a shell command, the library's too. An exit
// signal that came since the last wait takes effect in BeginWait, one that comes before EndWait at
// once. While firmware is installed both wait until that is done.
void BeginWait();
void EndWait();

#endif  // BH_DAEMON_SIGNALS_H_
