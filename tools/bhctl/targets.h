// The appliances that a command is for: named on the command line, all, or the only one. A command
// runs on several at once and prints one result each.

#ifndef BH_TOOLS_BHCTL_TARGETS_H_
#define BH_TOOLS_BHCTL_TARGETS_H_

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/appliances.h"
#include "tools/bhctl/options.h"

namespace bhctl {

struct Target {
  std::string name;                  // from the inventory, or the host name, or what the user gave
  std::optional<Answer> discovered;  // unset: it does not answer
  std::optional<Mac> wanted = {};    // the MAC address that the user or the inventory gave

  const Mac &GetMac() const {
    return discovered->mac;
  }
};

// Whether the options name appliances.
bool HasTargets(const Options &options);

// Discovers the appliances that the options name; without names, the only one on the network.
// Prints an error and returns another ExitStatus if there is none, or if there are several without
// names. Of several, those that do not answer are among the targets.
int ChooseTargets(const Options &options, std::vector<Target> &targets);

// Runs the task on one appliance, with the options for it. Returns an ExitStatus.
using Task = std::function<int(const Options &options, const Target &target)>;

// Runs the task on each of them. Of several, prints each one's output in the order of the targets,
// and a summary. Returns the only task's status; of several, EXIT_DONE if all were done.
int RunOnTargets(const Options &options, const std::vector<Target> &targets, const Task &task);

// Both.
int RunOnChosen(const Options &options, const Task &task);

// Prints how the call ended, and a hint. In JSON, an object with "mac" and "state" or "error".
// Returns the exit status.
int Report(const Options &options, const Mac &mac, const Outcome &outcome);

// Prints an object with "mac" and "state", or the line.
int ReportDone(const Options &options, const Mac &mac, const std::string &line);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_TARGETS_H_
