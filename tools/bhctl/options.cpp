// Helpers for commands that check their own arguments.

#include "tools/bhctl/options.h"

#include "tools/bhctl/print.h"

namespace bhctl {

const std::string *Given(const Options &options, const std::string &name) {
  const auto found = options.arguments.find(name);
  return found == options.arguments.end() ? nullptr : &found->second;
}

int UsageFailure(const std::string &message) {
  PrintError(message);
  return EXIT_USAGE;
}

int ExitStatusOf(Result result) {
  switch (result) {
    case Result::DONE:
      return EXIT_DONE;
    case Result::REFUSED:
      return EXIT_REFUSED;
    case Result::INVALID:
      return EXIT_USAGE;
    case Result::NO_ANSWER:
      return EXIT_NO_ANSWER;
    case Result::CANCELLED:
      return EXIT_INTERRUPTED;
  }
  return EXIT_NO_ANSWER;
}

}  // namespace bhctl
