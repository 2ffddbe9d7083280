#include "tools/bhctl/targets.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>

#include "tools/bhctl/inventory.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/suggest.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr std::chrono::seconds DISCOVERY{2};  // at most, unless the user says otherwise

// What the user named, and what is known of it before the discovery.
struct Wanted {
  std::string name;
  std::optional<Mac> mac;
  std::optional<uint32_t> address;
};

std::vector<std::string> SplitList(const std::vector<std::string> &lists) {
  std::vector<std::string> names;
  for (const std::string &list : lists) {
    for (size_t begin = 0; begin <= list.size();) {
      const size_t end = std::min(list.find(',', begin), list.size());
      if (end > begin) names.push_back(list.substr(begin, end - begin));
      begin = end + 1;
    }
  }
  return names;
}

void AddWanted(const std::string &name, const Inventory &inventory, std::vector<Wanted> &wanted) {
  const size_t before = wanted.size();
  for (const InventoryEntry &entry : inventory) {
    const bool in_group =
        std::find(entry.groups.begin(), entry.groups.end(), name) != entry.groups.end();
    if (entry.name == name || in_group) wanted.push_back({entry.name, entry.mac, {}});
  }
  if (wanted.size() > before) return;
  const std::optional<Mac> mac = ParseMac(name);
  const std::string known = mac ? InventoryName(inventory, *mac) : "";
  wanted.push_back({known.empty() ? name : known, mac, ParseAddress(name)});
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : static_cast<char>(byte);
  });
  return text;
}

bool Matches(const Wanted &wanted, const Appliance &appliance) {
  if (wanted.mac) return appliance.answer.mac == *wanted.mac;
  if (wanted.address) return appliance.info.address == *wanted.address;
  return LowerCase(FieldText(appliance.info.host_name)) == LowerCase(wanted.name);
}

Target MakeTarget(const Inventory &inventory, const Appliance &appliance) {
  std::string name = InventoryName(inventory, appliance.answer.mac);
  if (name.empty()) name = SafeText(FieldText(appliance.info.host_name));
  if (name.empty()) name = MacText(appliance.answer.mac);
  return {name, appliance.answer, appliance.answer.mac};
}

// A target each; two appliances may have the same host name or address.
void AddMatches(const Wanted &wanted, const Inventory &inventory,
                const std::vector<Appliance> &appliances, std::set<Mac> &chosen,
                std::vector<Target> &targets) {
  bool found = false;
  for (const Appliance &appliance : appliances) {
    if (!Matches(wanted, appliance)) continue;
    found = true;
    if (chosen.insert(appliance.answer.mac).second)
      targets.push_back(MakeTarget(inventory, appliance));
  }
  if (!found) targets.push_back({wanted.name, {}, wanted.mac});
}

Scope DiscoveryScope(const Options &options) {
  Scope scope = options.scope;
  if (!options.timeout_given)
    scope.timeout = std::min<std::chrono::microseconds>(scope.timeout, DISCOVERY);
  return scope;
}

int Fail(const Outcome &outcome) {
  PrintError(outcome.message);
  if (!outcome.hint.empty()) PrintError(outcome.hint);
  return ExitStatusOf(outcome.result);
}

int SeveralAnswer(const Inventory &inventory, const std::vector<Appliance> &appliances) {
  PrintError(std::to_string(appliances.size()) +
             " appliances answer; choose with --to NAME, ADDRESS or MAC, or --all:");
  std::vector<std::vector<std::string>> rows;
  rows.reserve(appliances.size());
  for (const Appliance &appliance : appliances)
    rows.push_back({"", AddressText(appliance.info.address), MakeTarget(inventory, appliance).name,
                    MacText(appliance.answer.mac)});
  for (const std::string &line : TableLines(rows))
    fprintf(stderr, "%s\n", line.c_str());
  return EXIT_USAGE;
}

int MissingTarget(const Options &options, const std::string &name,
                  const std::vector<Appliance> &appliances) {
  std::vector<std::string> names;
  names.reserve(appliances.size());
  for (const Appliance &appliance : appliances)
    names.push_back(SafeText(FieldText(appliance.info.host_name)));
  PrintError("no answer from '" + SafeText(name) + "'" + Suggestion(name, names));
  const std::string hint = NoAnswerHint(options.scope);
  if (!hint.empty()) PrintError(hint);
  return EXIT_NO_ANSWER;
}

// One result of several, waiting for those before it.
struct TargetResult {
  bool ended = false;
  int status = EXIT_NO_ANSWER;
  std::string output;
  std::string errors;
};

struct Fleet {
  std::mutex mutex;
  std::vector<TargetResult> results;
  size_t printed = 0;
};

// "name  line", or the name alone and the lines.
void PrintResult(const Options &options, const std::string &name, const TargetResult &result) {
  const bool one_line = result.output.find('\n') + 1 == result.output.size();
  if (options.json)
    PrintText(result.output);
  else if (!result.output.empty())
    PrintText(one_line ? name + "  " + result.output : name + ":\n" + result.output);
  for (size_t begin = 0; begin < result.errors.size();) {
    const size_t end = result.errors.find('\n', begin);
    PrintError(name + ": " + result.errors.substr(begin, end - begin));
    begin = end + 1;
  }
}

void PrintEnded(const Options &options, const std::vector<Target> &targets, Fleet &fleet) {
  while (fleet.printed < targets.size() && fleet.results[fleet.printed].ended) {
    PrintResult(options, targets[fleet.printed].name, fleet.results[fleet.printed]);
    ++fleet.printed;
  }
  fflush(stdout);
}

Options OptionsFor(const Options &options, const Target &target) {
  Options chosen = options;
  chosen.scope.mac = target.discovered->mac;
  chosen.scope.interface = target.discovered->interface;
  return chosen;
}

int RunOne(const Options &options, const Target &target, const Task &task) {
  if (target.discovered) return task(OptionsFor(options, target), target);
  if (options.json) PrintJson({{"name", target.name}, {"error", "no answer"}});
  PrintError("no answer");
  return EXIT_NO_ANSWER;
}

bool RunInFleet(const Options &options, const std::vector<Target> &targets, const Task &task,
                size_t number, Fleet &fleet) {
  TargetResult result;
  {
    Capture capture;
    result.status = RunOne(options, targets[number], task);
    result.output = capture.output;
    result.errors = capture.errors;
  }
  result.ended = true;
  const bool done = result.status == EXIT_DONE;
  const std::lock_guard lock(fleet.mutex);
  fleet.results[number] = result;
  PrintEnded(options, targets, fleet);
  return done;
}

int Summarize(const std::vector<Target> &targets, const Fleet &fleet, size_t started,
              bool interrupted) {
  std::string failed;
  size_t done = 0;
  for (size_t i = 0; i < started; ++i) {
    if (fleet.results[i].status == EXIT_DONE)
      ++done;
    else
      failed += (failed.empty() ? "" : ", ") + targets[i].name;
  }
  std::string text = std::to_string(done) + " of " + std::to_string(targets.size()) + " done";
  if (!failed.empty()) text += "; failed: " + failed;
  if (started < targets.size())
    text += "; not started: " + std::to_string(targets.size() - started);
  PrintError(text);
  if (interrupted) return EXIT_INTERRUPTED;
  return done == targets.size() ? EXIT_DONE : EXIT_REFUSED;
}

}  // namespace

bool HasTargets(const Options &options) {
  return options.all || !options.targets.empty();
}

int ChooseTargets(const Options &options, std::vector<Target> &targets) {
  Inventory inventory;
  std::string why;
  if (!ReadInventory(inventory, why)) return UsageFailure(why);
  std::vector<Wanted> wanted;
  for (const std::string &name : SplitList(options.targets))
    AddWanted(name, inventory, wanted);
  Scope scope = DiscoveryScope(options);
  if (wanted.size() == 1 && !options.all) scope.mac = wanted.front().mac;
  std::vector<Appliance> appliances;
  Outcome outcome = Discover(scope, appliances);
  const bool named =
      !wanted.empty() && outcome.result == acp::Result::NO_ANSWER && outcome.message == "no answer";
  if (!outcome.IsDone() && !named) return Fail(outcome);
  if (wanted.empty() && !options.all && appliances.size() > 1)
    return SeveralAnswer(inventory, appliances);
  std::set<Mac> chosen;
  for (const Wanted &each : wanted)
    AddMatches(each, inventory, appliances, chosen, targets);
  for (const Appliance &appliance : appliances)
    if ((wanted.empty() || options.all) && chosen.insert(appliance.answer.mac).second)
      targets.push_back(MakeTarget(inventory, appliance));
  if (targets.size() == 1 && !targets.front().discovered)
    return MissingTarget(options, targets.front().name, appliances);
  return EXIT_DONE;
}

int RunOnTargets(const Options &options, const std::vector<Target> &targets, const Task &task) {
  if (targets.size() == 1) return task(OptionsFor(options, targets.front()), targets.front());
  Fleet fleet;
  fleet.results.resize(targets.size());
  FleetLimits limits = options.limits;
  limits.cancel = options.scope.cancel;
  const size_t started = RunFleet(targets.size(), limits, [&](size_t number) {
    return RunInFleet(options, targets, task, number, fleet);
  });
  return Summarize(targets, fleet, started, IsCancelled(options.scope.cancel));
}

int RunOnChosen(const Options &options, const Task &task) {
  std::vector<Target> targets;
  const int status = ChooseTargets(options, targets);
  return status == EXIT_DONE ? RunOnTargets(options, targets, task) : status;
}

int Report(const Options &options, const Mac &mac, const Outcome &outcome) {
  const bool refused = outcome.result == acp::Result::REFUSED;
  if (options.json) {
    Json object = {{"mac", MacText(mac)}};
    if (refused) object["state"] = StateName(outcome.state);
    if (!refused) object["error"] = outcome.message;
    if (!outcome.step.empty()) object["step"] = outcome.step;
    if (!outcome.hint.empty()) object["hint"] = outcome.hint;
    PrintJson(object);
    if (refused) return EXIT_REFUSED;
  }
  std::string text = refused ? MacText(mac) + " " + outcome.message : outcome.message;
  if (!outcome.step.empty()) text = "failed at the step " + outcome.step + ": " + text;
  PrintError(text);
  if (!outcome.hint.empty()) PrintError(outcome.hint);
  return ExitStatusOf(outcome.result);
}

int ReportDone(const Options &options, const Mac &mac, const std::string &line) {
  if (options.json)
    PrintJson({{"mac", MacText(mac)}, {"state", StateName(ACP_STATE_OK)}});
  else
    PrintLine(line);
  return EXIT_DONE;
}

}  // namespace bhctl
