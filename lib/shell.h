// Command lines of the appliance's programs: one formatter, one runner.

#ifndef BH_LIB_SHELL_H_
#define BH_LIB_SHELL_H_

#include <cstddef>
#include <string>

// printf into a text.
std::string FormatText(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The text as one word of a command line: in single quotes if the shell would act on any of its
// characters, else as it is.
std::string QuoteForShell(const std::string &text);

// Runs the command line in a shell and waits for it. The status as system() returns it.
int RunShell(const std::string &command);

// Runs the command line in a shell and returns what it prints first: one line with its newline, cut
// to `longest` characters. Empty when it prints nothing or cannot be run.
std::string FirstOutputLine(const char *command, size_t longest);

#endif  // BH_LIB_SHELL_H_
