// One request each, and what its reply means.

#include "tools/bhctl/special.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "client/hints.h"
#include "client/special.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/status.h"
#include "tools/bhctl/suggest.h"
#include "tools/bhctl/terminal.h"
#include "tools/bhctl/text.h"
#include "tools/bhctl/wait.h"

namespace bhctl {
namespace {

using std::chrono::seconds;
using enum Operand;
using enum ResultKind;

constexpr SpecialGroup GROUPS[] = {
    {"boot", "SYSTEM", "Choose the system that the appliance starts next"},
    {"config", "ACTION", "Save or load the appliance's configuration"},
    {"lock", "ACTION", "Show, take or release the appliance's configuration lock"},
    {"trace", "SWITCH", "Switch the trace of the appliance's daemon on or off"},
    {"raid create", "KIND", "Create an array"},
    {"language", "LANGUAGE", "Choose the appliance's language"},
    {"test", "PART", "Test a drive, which destroys its data, or test the UPS port"},
};

constexpr Special SPECIALS[] = {
    {"enable", "", PASS_PHRASE, SPECIAL_COMMAND_MODE, SWITCH_ON, 0,
     "Enable the command mode for this machine only"},
    {"disable", "", NONE, SPECIAL_COMMAND_MODE, SWITCH_OFF, 0, "Disable the command mode"},
    {"login", "", PASSWORD, SPECIAL_VERIFY_PASSWORD, 0, NEEDS_COMMAND_MODE,
     "Verify the administrator's password"},
    {"reboot", "", NONE, SPECIAL_REBOOT, 0, NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Restart the appliance"},
    {"shutdown", "", NONE, SPECIAL_SHUTDOWN, 0, NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Switch the appliance off"},
    {"boot", "emergency", NONE, SPECIAL_BOOT_EMERGENCY, 0, NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Start the emergency system next"},
    {"boot", "disk", NONE, SPECIAL_BOOT_DISK, 0, NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Start the disk's system next",
     "the appliance could not create the file that selects the disk's system"},
    {"blink", "", NONE, SPECIAL_BLINK, 0, 0, "Blink the appliance's light for 3 seconds"},
    {"config", "save", NONE, SPECIAL_SAVE_CONFIG, 0, 0, "Save the configuration"},
    {"config", "load", NONE, SPECIAL_LOAD_CONFIG, 0, NEEDS_CONFIRMATION,
     "Replace the configuration with the saved one"},
    {"web-reset", "", NONE, SPECIAL_INIT_WEB, 0, NEEDS_CONFIRMATION,
     "Reset the web settings to the factory defaults"},
    {"lock", "status", NONE, SPECIAL_CHECK_LOCK, 0, 0, "Show whether the lock is held", "",
     LOCK_STATUS},
    {"lock", "take", NONE, SPECIAL_LOCK, 0, 0, "Take the lock for the daemon", "", LOCK},
    {"lock", "release", NONE, SPECIAL_UNLOCK, 0, 0, "Release the daemon's lock",
     "there is no lock: nobody has taken it since the appliance started"},
    {"trace", "on", NONE, SPECIAL_TRACE, SWITCH_ON, 0, "Switch the trace on"},
    {"trace", "off", NONE, SPECIAL_TRACE, SWITCH_OFF, 0, "Switch the trace off"},
    {"set-mac", "", MAC, SPECIAL_SET_MAC, 0, NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Change the network hardware's MAC address permanently",
     "writing to the network hardware failed"},
    {"raid create", "normal", NONE, SPECIAL_CREATE_RAID, RAID_KIND_NORMAL,
     NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION, "Make single disks, which erases them"},
    {"raid create", "jbod", NONE, SPECIAL_CREATE_RAID, RAID_KIND_JBOD,
     NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION, "Concatenate the disks, which erases them"},
    {"raid create", "raid1", NONE, SPECIAL_CREATE_RAID, RAID_KIND_RAID1,
     NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION, "Mirror the disks, which erases them"},
    {"raid create", "raid5", NONE, SPECIAL_CREATE_RAID, RAID_KIND_RAID5,
     NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION, "Create a RAID 5, which erases the disks"},
    {"language", "japanese", NONE, SPECIAL_SET_LANGUAGE, LANGUAGE_JAPANESE, NEEDS_COMMAND_MODE,
     "Japanese", "the appliance cannot save the setting"},
    {"language", "english", NONE, SPECIAL_SET_LANGUAGE, LANGUAGE_ENGLISH, NEEDS_COMMAND_MODE,
     "English", "the appliance cannot save the setting"},
    {"test", "disk", DEVICE, SPECIAL_TEST_DRIVE, TESTED_DISK,
     NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Write and read parts of a disk, which destroys its data", "", STATE, seconds(600)},
    {"test", "usb", DEVICE, SPECIAL_TEST_DRIVE, TESTED_REMOVABLE,
     NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Write and read part of a USB disk, which destroys its data", "", STATE, seconds(600)},
    {"test", "ups", NONE, SPECIAL_TEST_UPS, 0, NEEDS_COMMAND_MODE, "Test the UPS port",
     "the port's signals are wrong", STATE, seconds(60)},
    {"remove", "", PATH, SPECIAL_REMOVE_FILE, 0, NEEDS_COMMAND_MODE | NEEDS_CONFIRMATION,
     "Remove a file or an empty directory",
     "the file does not exist, or is a directory that is not empty"},
    {"checksum", "", PATH, SPECIAL_FILE_CHECKSUM, 0, 0, "Show the 16-bit checksum of a file", "",
     CHECKSUM},
    {"clear-usb", "", NONE, SPECIAL_CLEAR_USB, 0, NEEDS_COMMAND_MODE,
     "Clear the USB disks from the disk information"},
};

constexpr Hint HINTS[] = {
    {ACP_STATE_NO_KEY, KEY_EXPIRED},
    {ACP_STATE_NOT_SUPPORT, "the appliance does not support this command"},
    {ACP_STATE_TEST_FAIL, "the drive does not exist, is too slow, or has bad blocks"},
    {ACP_STATE_BAD_PRODUCT, OTHER_PRODUCTS},
};

constexpr Hint LOCK_HINTS[] = {
    {ACP_STATE_FAILURE, "the appliance cannot create the lock file"},
    {LOCK_NOT_READY, "the lock is not ready; try again"},
    {LOCK_HELD_BY_ANOTHER, "another program or the daemon itself holds the lock"},
};

// One run of a command.
struct Call {
  const Special *row = nullptr;
  Options options;
  std::string operand;           // as given
  std::vector<uint8_t> text;     // of the request
  std::optional<Secret> secret;  // becomes the text, encoded with the session's key
  Credentials credentials;
};

// On one appliance.
struct Run {
  const Call &call;
  const Options &options;
  const Target &target;
  Session session;
  uint32_t result = 0;
};

std::string CommandText(const Call &call) {
  std::string text = call.row->name;
  for (const std::string &more : {std::string(call.row->word), call.operand})
    if (!more.empty()) text.append(" ").append(more);
  return text;
}

std::string Listed(const std::vector<std::string> &words) {
  std::string list;
  for (const std::string &word : words)
    list += (list.empty() ? "" : ", ") + word;
  return list;
}

// Returns null with a message if no row has the given word.
const Special *ChooseRow(const Options &options) {
  const SpecialGroup *group = FindGroup(options.command.c_str());
  const std::string *given = group == nullptr ? nullptr : Given(options, group->word);
  const std::string word = given == nullptr ? "" : *given;
  std::vector<std::string> words;
  for (const Special &row : SPECIALS) {
    if (row.name != options.command) continue;
    if (row.word == word) return &row;
    words.emplace_back(row.word);
  }
  PrintError(std::string(group == nullptr ? "argument" : group->word) + " must be one of " +
             Listed(words) + ", not '" + SafeText(word) + "'" + Suggestion(word, words));
  return nullptr;
}

int ReadPath(const char *name, Call &call) {
  if (call.operand.empty() || call.operand.size() > MAX_REQUEST_TEXT)
    return UsageFailure(std::string(name) + " must have 1 to " + std::to_string(MAX_REQUEST_TEXT) +
                        " bytes");
  call.text.assign(call.operand.begin(), call.operand.end());
  return EXIT_DONE;
}

// A multicast or zero address would make the appliance unreachable.
int ReadMac(Call &call) {
  const std::optional<Mac> mac = ParseMac(call.operand);
  if (!mac || (mac->front() & 1) != 0 || *mac == Mac())
    return UsageFailure("not a unicast MAC address: '" + SafeText(call.operand) + "'");
  call.operand = MacText(*mac);
  call.text.assign(call.operand.begin(), call.operand.end());
  return EXIT_DONE;
}

int ReadSecret(Call &call) {
  std::string text;
  const bool phrase = call.row->operand == PASS_PHRASE;
  const int status = phrase ? NeedPassPhrase(call.options, text) : NeedPassword(call.options, text);
  call.secret = phrase ? PassPhrase(text) : AdminPassword(text);
  return status;
}

int ReadOperand(Call &call) {
  const char *name = OperandName(call.row->operand);
  for (const char *other : {"PATH", "DEVICE", "MAC"}) {
    const std::string *given = Given(call.options, other);
    if (given != nullptr && (name == nullptr || std::string_view(name) != other))
      return UsageFailure("unexpected argument '" + SafeText(*given) + "'");
  }
  if (call.row->operand == PASS_PHRASE || call.row->operand == PASSWORD) return ReadSecret(call);
  if (name == nullptr) return EXIT_DONE;
  const std::string *given = Given(call.options, name);
  if (given == nullptr) return UsageFailure(std::string(name) + " is required");
  call.operand = *given;
  return call.row->operand == MAC ? ReadMac(call) : ReadPath(name, call);
}

int ReadCall(const Options &options, Call &call) {
  call.row = ChooseRow(options);
  if (call.row == nullptr) return EXIT_USAGE;
  call.options = options;
  if (!options.timeout_given) call.options.scope.timeout = call.row->timeout;
  if ((call.row->properties & NEEDS_COMMAND_MODE) != 0) call.credentials = CredentialsOf(options);
  const int status = ReadOperand(call);
  if (status != EXIT_DONE || (call.row->properties & NEEDS_CONFIRMATION) == 0) return status;
  return CheckConfirmable(options, CommandText(call));
}

std::string RefusalHint(const Run &run) {
  const Special &row = *run.call.row;
  if (run.result == ACP_STATE_NOT_PERMIT) return NotEnabledHint(run.session);
  if (run.result == ACP_STATE_PASSWORD_ERROR && run.call.secret)
    return std::string(run.call.secret->name) + " is wrong";
  if (row.result == LOCK) return HintFor(LOCK_HINTS, run.result);
  if (row.result == CHECKSUM && run.result == NO_CHECKSUM)
    return "the file is missing, empty, unreadable or all zero bytes";
  return run.result == ACP_STATE_FAILURE ? row.failure : HintFor(HINTS, run.result);
}

bool IsRefused(const Run &run) {
  if (run.call.row->result == CHECKSUM) return run.result >= NO_CHECKSUM;
  if (run.call.row->result == LOCK_STATUS) return run.result > LOCK_NOT_HELD;
  return run.result != ACP_STATE_OK;
}

void WarnOfMadeUpMac(const Run &run) {
  if (!run.session.made_up_mac || !run.call.secret) return;
  PrintError(
      "the password cannot be encoded under this machine's key, so this applies to the made-up MAC "
      "address " +
      MacText(run.session.src_mac) +
      " only: give the pass phrase and the password with each command");
}

int ShowDone(const Run &run) {
  Json object = {{"mac", MacText(run.session.mac)}, {"state", StateName(ACP_STATE_OK)}};
  std::string line = "done";
  if (run.call.row->result == CHECKSUM) {
    char text[7];
    snprintf(text, sizeof(text), "0x%04x", run.result & 0xFFFFU);
    object["checksum"] = line = text;
  }
  if (run.call.row->result == LOCK) line = "taken";
  if (run.call.row->result == LOCK_STATUS) {
    object["held"] = run.result == LOCK_HELD;
    line = run.result == LOCK_HELD
               ? "held by the appliance's daemon, or not taken since the appliance started"
               : "not held by the appliance's daemon: free, or held by another program";
  }
  if (run.options.json)
    PrintJson(object);
  else
    PrintLine(line);
  WarnOfMadeUpMac(run);
  return EXIT_DONE;
}

// Opens the session, gets the rights, sends the request.
Outcome Send(Run &run) {
  const Call &call = run.call;
  std::vector<Secret> secrets = SecretsOf(call.credentials);
  if (call.secret) secrets.push_back(*call.secret);
  const Scope &scope = run.options.scope;
  Outcome outcome = OpenSession(scope, *run.target.discovered, secrets, run.session);
  if (!outcome.IsDone()) return outcome;
  outcome = Authorize(SessionScope(scope, run.session), run.session, call.credentials);
  if (!outcome.IsDone()) return outcome;
  std::vector<uint8_t> text = call.text;
  if (call.secret) text = EncodePassword(*call.secret, run.session.key).value();
  return AskSpecial(scope, run.session, MakeSpecialRequest(call.row->code, call.row->extra, text),
                    run.result);
}

int RunCall(const Call &call, const Options &options, const Target &target) {
  Run run = {call, options, target, {}};
  Outcome outcome = Send(run);
  if (outcome.IsDone() && IsRefused(run)) outcome = Refusal(run.result, RefusalHint(run));
  if (!outcome.IsDone()) return Report(options, target.GetMac(), outcome);
  if (Given(options, "--wait") == nullptr) return ShowDone(run);
  return WaitForRestart(options, target);
}

}  // namespace

std::span<const Special> Specials() {
  return SPECIALS;
}

const SpecialGroup *FindGroup(const char *name) {
  const auto *found =
      std::find_if(std::begin(GROUPS), std::end(GROUPS),
                   [=](const SpecialGroup &group) { return std::string_view(group.name) == name; });
  return found == std::end(GROUPS) ? nullptr : found;
}

const char *OperandName(Operand operand) {
  if (operand == PATH) return "PATH";
  if (operand == DEVICE) return "DEVICE";
  return operand == MAC ? "MAC" : nullptr;
}

int RunSpecial(const Options &options) {
  Call call;
  int status = ReadCall(options, call);
  std::vector<Target> targets;
  if (status == EXIT_DONE) status = ChooseTargets(options, targets);
  if (status == EXIT_DONE && (call.row->properties & NEEDS_CONFIRMATION) != 0)
    status = Confirm(options, targets, CommandText(call), call.row->description);
  if (status != EXIT_DONE) return status;
  return RunOnTargets(call.options, targets, [&](const Options &chosen, const Target &target) {
    return RunCall(call, chosen, target);
  });
}

int RaidOrCreate(const Options &options) {
  const std::string *action = Given(options, "ACTION");
  if (action == nullptr) return Raid(options);
  if (*action != "create")
    return UsageFailure("ACTION must be create, not '" + SafeText(*action) + "'" +
                        Suggestion(*action, {"create"}));
  if (!options.arguments.contains("KIND")) return UsageFailure("KIND is required");
  Options create = options;
  create.command += " create";
  return RunSpecial(create);
}

}  // namespace bhctl
