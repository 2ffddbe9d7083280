// The plans of the variable are kept in this process, the count of the file in the file. Nothing
// here may call what the shim wraps.

#include "board/failing.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char FILE[] = "/run/failing";

constexpr struct {
  const char *name;
  int number;
} ERRORS[] = {
    {"EACCES", EACCES}, {"EADDRINUSE", EADDRINUSE}, {"EAGAIN", EAGAIN},
    {"EINTR", EINTR},   {"EINVAL", EINVAL},         {"EIO", EIO},
    {"EMFILE", EMFILE}, {"ENETDOWN", ENETDOWN},     {"ENOBUFS", ENOBUFS},
    {"ENODEV", ENODEV}, {"ENOENT", ENOENT},         {"ENOMEM", ENOMEM},
    {"ENOSPC", ENOSPC}, {"ENXIO", ENXIO},           {"EPERM", EPERM},
    {"EROFS", EROFS},
};

struct Plan {
  const char *call;
  const char *argument;  // null: whatever it is
  unsigned long nth;     // 0: every one
  int error;
  unsigned long seen;
};
Plan plans[8];
size_t plan_count = 0;

[[noreturn]] void Refuse(const char *text) {
  fprintf(stderr, "board shim: cannot read this of BOARD_FAIL: %s\n", text);
  abort();
}

int ErrorNumber(const char *name) {
  for (const auto &error : ERRORS)
    if (strcmp(name, error.name) == 0) return error.number;
  Refuse(name);
}

void ReadPlan(char *item) {
  const char *program = strsep(&item, "/");
  char *argument = strsep(&item, ":");
  const char *nth = strsep(&item, ":");
  const char *call = strsep(&argument, "=");
  if (call == nullptr || plan_count == sizeof(plans) / sizeof *plans) Refuse(program);
  if (strcmp(program, "*") != 0 && strcmp(program, program_invocation_short_name) != 0) return;
  const int usual = strcmp(call, "calloc") == 0 ? ENOMEM : EIO;
  plans[plan_count++] = {call, argument, nth == nullptr ? 1 : strtoul(nth, nullptr, 10),
                         item == nullptr ? usual : ErrorNumber(item), 0};
}

// Reads the variable if it is not what it was.
void ReadPlans() {
  static char known[1024];
  static char items[sizeof(known)];
  const char *set = getenv("BOARD_FAIL");
  const char *list = set == nullptr ? "" : set;
  if (strcmp(list, known) == 0) return;
  plan_count = 0;
  const size_t size = strlen(list) + 1;
  if (size > sizeof(items)) Refuse(list);
  memcpy(known, list, size);
  memcpy(items, list, size);
  char *rest = size > 1 ? items : nullptr;
  while (rest != nullptr)
    ReadPlan(strsep(&rest, ","));
}

// How many of the lines before `end` note calls. The first of the file does not.
unsigned long CountNotes(int file, off_t end) {
  unsigned long lines = 0;
  char bytes[256];
  off_t at = 0;
  ssize_t length = 0;
  while ((length = pread(file, bytes, sizeof(bytes), at)) > 0) {
    for (ssize_t i = 0; i < length && at + i < end; ++i)
      if (bytes[i] == '\n') ++lines;
    at += length;
  }
  return lines - 1;
}

// Notes the call by one write at the file's end: another process's note stands before it or behind
// it, and the offset tells.
unsigned long Note(int file, const char *call, const char *argument) {
  char line[160];
  snprintf(line, sizeof(line), "%s%s%.128s\n", call, argument == nullptr ? "" : " ",
           argument == nullptr ? "" : argument);
  if (write(file, line, strlen(line)) < 0) return 0;
  return CountNotes(file, lseek(file, 0, SEEK_CUR));
}

bool FailsByFile(const char *call, const char *argument) {
  const int file = openat(AT_FDCWD, FILE, O_RDWR | O_APPEND | O_CLOEXEC);
  if (file < 0) return false;
  char head[64] = "";
  char *nth = head;
  const bool has_plan = pread(file, head, sizeof(head) - 1, 0) > 0;
  const char *program = strsep(&nth, " ");
  const bool is_ours =
      has_plan && nth != nullptr && strcmp(program, program_invocation_short_name) == 0;
  const bool fails = is_ours && Note(file, call, argument) == strtoul(nth, nullptr, 10);
  close(file);
  return fails;
}

}  // namespace

bool HasPlans() {
  ReadPlans();
  return plan_count != 0;
}

bool FailsByVariable(const char *call, const char *argument) {
  ReadPlans();
  for (size_t i = 0; i < plan_count; ++i) {
    Plan &plan = plans[i];
    if (strcmp(plan.call, call) != 0) continue;
    if (plan.argument != nullptr && (argument == nullptr || strcmp(plan.argument, argument) != 0))
      continue;
    ++plan.seen;
    if (plan.nth != 0 && plan.seen != plan.nth) continue;
    errno = plan.error;
    return true;
  }
  return false;
}

bool Fails(const char *call, const char *argument) {
  const int error = errno;
  const bool fails = FailsByFile(call, argument);
  errno = fails ? EIO : error;
  return fails || FailsByVariable(call, argument);
}
