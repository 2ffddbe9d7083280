// The pid file of an instance: "/var/run/bh_servd-<interface>.pid", the server's pid in decimal
// without a line end.

#ifndef BH_DAEMON_PIDFILE_H_
#define BH_DAEMON_PIDFILE_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

std::string PidFilePath(const std::string &ifname);

bool PidFileExists(const std::string &ifname);

// Creates or replaces the pid file, which is never seen without its number. Returns -1 when
// /var/run or the file cannot be had.
int32_t WritePidFile(const std::string &ifname, pid_t pid);

// The process that the file names; 0 when there is none in it, or no file. Neither a process group
// nor init is ever named. Safe in a signal handler.
pid_t ReadPid(const char *path);

// Whether the file is there and names no living process but this one. A server that has been told
// to stop must leave the file of one that was started since, also of one that is just being
// started. Safe in a signal handler.
bool IsOwnPidFile(const char *path);

// Removes the pid file of the served interface. Returns -1 when no interface is set, and when there
// is none or it is another server's; else the result of the removal.
int32_t DeletePidfile();

// Ends the instance that serves interface `name` and removes its pid file, which signals nobody
// when there is no process in it. Returns 0, or -1 when there is no pid file.
int32_t stop_daemon(const char *name);

#endif  // BH_DAEMON_PIDFILE_H_
