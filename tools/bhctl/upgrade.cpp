// One image, for one appliance or for many of the same product.

#include "tools/bhctl/upgrade.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "client/update.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/progress.h"
#include "tools/bhctl/targets.h"
#include "tools/bhctl/terminal.h"
#include "tools/bhctl/text.h"
#include "tools/bhctl/wait.h"

namespace bhctl {
namespace {

constexpr std::chrono::seconds MAX_RESTART{600};
constexpr std::chrono::seconds BETWEEN_LOOKS{2};

bool ReadNumber(const Options &options, const char *name, uint32_t lowest, uint32_t &number) {
  const std::string *text = Given(options, name);
  if (text == nullptr) return true;
  const std::optional<uint32_t> given = ParseU32(*text);
  number = given.value_or(0);
  if (given && *given >= lowest) return true;
  PrintError(std::string(name) + " must be a number from " + std::to_string(lowest) +
             " to 0xffffffff, not '" + SafeText(*text) + "'");
  return false;
}

int ReadPlan(const Options &options, Image &image, UpdatePlan &plan) {
  uint32_t product = 0;
  if (!ReadNumber(options, "--type", 1, plan.type) || !ReadNumber(options, "--product", 0, product))
    return EXIT_USAGE;
  if (Given(options, "--product") != nullptr) plan.product = product;
  if (const std::string *zip = Given(options, "--zip-password"); zip != nullptr) {
    if (zip->empty()) return UsageFailure("--zip-password must not be empty");
    if (zip->size() > MAX_ZIP_PASSWORD)
      return UsageFailure("--zip-password can have at most " + std::to_string(MAX_ZIP_PASSWORD) +
                          " bytes");
    plan.zip_password = *zip;
  }
  std::string why;
  const std::string &path = options.arguments.at("IMAGE");
  if (!OpenImage(path, image, why))
    return UsageFailure("cannot send " + SafeText(path) + ": " + why);
  plan.image = &image;
  return ReadCredentials(options, plan.credentials);
}

Json Described(const UpdateJob &job) {
  return {{"mac", MacText(job.session.mac)},
          {"state", StateName(ACP_STATE_OK)},
          {"step", STEP_FINISH},
          {"product_id", job.update.product},
          {"type", job.update.type},
          {"size", job.image->size},
          {"checksum", WordText(job.image->checksum)}};
}

std::string VersionOf(const DiscoverInfo &info) {
  const std::string sub = SafeText(FieldText(info.firmware_sub_version));
  return std::to_string(info.firmware_major) + "." + std::to_string(info.firmware_minor) +
         (sub.empty() ? "" : " (" + sub + ")") + " " +
         SafeText(FieldText(info.firmware_build_date));
}

int ShowPlan(const Options &options, const UpdateJob &job) {
  Outcome tried = TryUpdate(job);
  if (!tried.IsDone()) return Report(options, job.session.mac, tried);
  if (options.json) {
    Json object = Described(job);
    object["step"] = STEP_KEY;
    object["dry_run"] = true;
    PrintJson(object);
    return EXIT_DONE;
  }
  const DiscoverInfo &info = job.session.info;
  PrintTable(
      {{"Appliance:", MacText(job.session.mac) + ", " + AddressText(info.address)},
       {"Product:", HexText(job.update.product)},
       {"Firmware:", VersionOf(info)},
       {"Image:", SafeText(job.image->path)},
       {"Type:", std::to_string(job.update.type)},
       {"Size:", SizeText(job.image->size) + " (" + std::to_string(job.image->size) + " bytes)"},
       {"Checksum:", WordText(job.image->checksum)}});
  PrintLine("dry run: nothing was changed");
  return EXIT_DONE;
}

// A command of its own restarts most appliances; some start the new firmware at once.
Outcome AwaitNewVersion(const UpdateJob &job, std::string &version) {
  using Clock = std::chrono::steady_clock;
  const std::string before = VersionOf(job.session.info);
  const Clock::time_point end = Clock::now() + MAX_RESTART;
  for (;;) {
    Answer answer;
    Outcome outcome = WaitForAnswer(job.scope, MAX_RESTART, answer);
    if (!outcome.IsDone()) return outcome;
    version = VersionOf(ReadDiscoverInfo(answer.body));
    if (version != before) return outcome;
    if (Clock::now() >= end)
      return Failure(acp::Result::NO_ANSWER, "installed, but it still runs " + version,
                     "restart it with 'bhctl reboot'");
    Pause(job.scope.cancel, BETWEEN_LOOKS);
    if (IsCancelled(job.scope.cancel)) return Cancelled();
  }
}

int ShowInstalled(const Options &options, const UpdateJob &job, const std::string &version) {
  if (options.json) {
    Json object = Described(job);
    if (!version.empty()) object["version"] = version;
    PrintJson(object);
    return EXIT_DONE;
  }
  PrintLine("installed " + SizeText(job.image->size) + ", checksum " +
            WordText(job.image->checksum) + ", on " + MacText(job.session.mac) +
            (version.empty() ? "" : "; it answers with version " + version));
  return EXIT_DONE;
}

int Install(const Options &options, const UpdateJob &job, size_t number, ProgressDisplay &display) {
  UpdateProgress progress;
  progress.upload = [&](uint64_t sent) { display.Sent(number, sent); };
  progress.installing = [&] { display.Says(number, "installing; this may take minutes"); };
  Outcome outcome = RunUpdate(job, progress);
  std::string version;
  if (outcome.IsDone() && Given(options, "--wait") != nullptr) {
    display.Says(number, "waiting for the new version");
    outcome = AwaitNewVersion(job, version);
  }
  display.Says(number, "");
  if (!outcome.IsDone()) return Report(options, job.session.mac, outcome);
  return ShowInstalled(options, job, version);
}

// A product that reads the password from the request refuses one that is missing.
int CheckPassword(const Options &options, const std::vector<Target> &targets,
                  const UpdatePlan &plan) {
  const bool needed = std::any_of(targets.begin(), targets.end(), [](const Target &target) {
    return target.discovered &&
           !VerifiesPassword(ReadDiscoverInfo(target.discovered->body).product_id);
  });
  if (!needed || plan.credentials.password || IsTerminal()) return EXIT_DONE;
  if (Given(options, "--dry-run") != nullptr) return EXIT_DONE;
  return UsageFailure(
      "the administrator's password is required: give --password or "
      "--password-stdin");
}

std::vector<std::string> NamesOf(const std::vector<Target> &targets) {
  std::vector<std::string> names;
  names.reserve(targets.size());
  for (const Target &target : targets)
    names.push_back(target.name);
  return names;
}

size_t NumberOf(const std::vector<Target> &targets, const Target &target) {
  const auto found = std::find_if(targets.begin(), targets.end(), [&](const Target &each) {
    return each.discovered && each.GetMac() == target.GetMac();
  });
  return static_cast<size_t>(found - targets.begin());
}

}  // namespace

int Upgrade(const Options &options) {
  Image image;
  UpdatePlan plan;
  std::vector<Target> targets;
  int status = ReadPlan(options, image, plan);
  if (status == EXIT_DONE) status = ChooseTargets(options, targets);
  if (status == EXIT_DONE && targets.size() > 1 && !plan.product)
    status = UsageFailure("--product is required for several appliances");
  if (status == EXIT_DONE) status = CheckPassword(options, targets, plan);
  if (status != EXIT_DONE) return status;
  const bool dry_run = Given(options, "--dry-run") != nullptr;
  ProgressDisplay display(NamesOf(targets), image.size, options.json || dry_run);
  return RunOnTargets(options, targets, [&](const Options &chosen, const Target &target) {
    UpdateJob job;
    Outcome prepared = PrepareUpdate(chosen.scope, *target.discovered, plan, job);
    if (!prepared.IsDone()) return Report(chosen, target.GetMac(), prepared);
    if (dry_run) return ShowPlan(chosen, job);
    return Install(chosen, job, NumberOf(targets, target), display);
  });
}

}  // namespace bhctl
