// A request is sent once, to one appliance, and never repeated: a second one might restart it
// again.

#include "tools/bhctl/special.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tools/bhctl/client.h"
#include "tools/bhctl/credentials.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/refusal.h"
#include "tools/bhctl/session.h"
#include "tools/bhctl/status.h"
#include "tools/bhctl/terminal.h"
#include "tools/bhctl/text.h"

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

constexpr uint32_t NOT_READY = 0xFFFFFFFE;
constexpr uint32_t HELD_BY_ANOTHER = 0xFFFFFFFD;
constexpr Hint LOCK_HINTS[] = {
    {ACP_STATE_FAILURE, "the appliance cannot create the lock file"},
    {NOT_READY, "the lock is not ready; try again"},
    {HELD_BY_ANOTHER, "another program or the daemon itself holds the lock"},
};

constexpr uint32_t LOCK_HELD = 0;
constexpr uint32_t LOCK_NOT_HELD = 1;
constexpr uint32_t NO_CHECKSUM = 0xFFFF;

// One run of a command.
struct Call {
  const Special *row = nullptr;
  Options options;
  std::string operand;           // as given
  std::vector<uint8_t> text;     // of the request
  std::optional<Secret> secret;  // becomes the text, encoded with the session's key
  Credentials credentials;
  Session session;
};

std::string CommandText(const Call &call) {
  std::string text = call.row->name;
  for (const std::string &more : {std::string(call.row->word), call.operand})
    if (!more.empty()) text.append(" ").append(more);
  return text;
}

// Returns null with a message if no row has the given word.
const Special *ChooseRow(const Options &options) {
  const SpecialGroup *group = FindGroup(options.command.c_str());
  const std::string *given = group == nullptr ? nullptr : Given(options, group->word);
  const std::string word = given == nullptr ? "" : *given;
  std::string words;
  for (const Special &row : SPECIALS) {
    if (row.name != options.command) continue;
    if (row.word == word) return &row;
    if (!words.empty()) words += ", ";
    words += row.word;
  }
  PrintError(std::string(group == nullptr ? "argument" : group->word) + " must be one of " + words +
             ", not '" + SafeText(word) + "'");
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
  if (options.timeout.count() == 0) call.options.timeout = call.row->timeout;
  if ((call.row->properties & NEEDS_COMMAND_MODE) != 0) call.credentials = CredentialsOf(options);
  const int status = ReadOperand(call);
  if (status != EXIT_DONE || (call.row->properties & NEEDS_CONFIRMATION) == 0) return status;
  return CheckConfirmable(options, CommandText(call));
}

int OpenCallSession(Call &call) {
  std::vector<Secret> secrets = SecretsOf(call.credentials);
  if (call.secret) secrets.push_back(*call.secret);
  const int status = OpenSession(call.options, secrets, call.session);
  if (status != EXIT_DONE) return status;
  call.options = SessionOptions(call.options, call.session);
  if (call.secret) call.text = EncodePassword(*call.secret, call.session.key).value();
  if ((call.row->properties & NEEDS_CONFIRMATION) == 0) return EXIT_DONE;
  return Confirm(call.options, call.session, CommandText(call), call.row->description);
}

std::string RefusalHint(const Call &call, uint32_t state) {
  if (state == ACP_STATE_NOT_PERMIT) return NotEnabledHint(call.session);
  if (state == ACP_STATE_PASSWORD_ERROR && call.secret)
    return std::string(call.secret->name) + " is wrong";
  if (call.row->result == LOCK) return HintFor(LOCK_HINTS, state);
  if (call.row->result == CHECKSUM && state == NO_CHECKSUM)
    return "the file is missing, empty, unreadable or all zero bytes";
  return state == ACP_STATE_FAILURE ? call.row->failure : HintFor(HINTS, state);
}

bool IsRefused(const Call &call, uint32_t result) {
  if (call.row->result == CHECKSUM) return result >= NO_CHECKSUM;
  if (call.row->result == LOCK_STATUS) return result > LOCK_NOT_HELD;
  return result != ACP_STATE_OK;
}

int ShowDone(const Call &call, uint32_t result) {
  Json object = {{"mac", MacText(call.session.mac)}, {"state", StateName(ACP_STATE_OK)}};
  std::string line = "done";
  if (call.row->result == CHECKSUM) {
    char text[7];
    snprintf(text, sizeof(text), "0x%04x", result & 0xFFFFU);
    object["checksum"] = line = text;
  }
  if (call.row->result == LOCK) line = "taken";
  if (call.row->result == LOCK_STATUS) {
    object["held"] = result == LOCK_HELD;
    line = result == LOCK_HELD
               ? "held by the appliance's daemon, or not taken since the appliance started"
               : "not held by the appliance's daemon: free, or held by another program";
  }
  if (call.options.json)
    PrintJson(object);
  else
    PrintLine(line);
  if (call.session.made_up_mac && call.secret)
    PrintError(
        "the password cannot be encoded under this machine's key, so this applies to the made-up "
        "MAC address " +
        MacText(call.session.src_mac) +
        " only: give the pass phrase and the password with each command");
  return EXIT_DONE;
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
  if (status == EXIT_DONE) status = OpenCallSession(call);
  if (status == EXIT_DONE) status = AuthorizeOrReport(call.options, call.session, call.credentials);
  if (status != EXIT_DONE) return status;
  Answer answer;
  const Request request = MakeSpecialRequest(call.row->code, call.row->extra, call.text);
  status = AskOne(call.options, request, answer);
  if (status == EXIT_NO_ANSWER) PrintError(MAYBE_DONE);
  if (status != EXIT_DONE) return status;
  if (!IsRefused(call, answer.state)) return ShowDone(call, answer.state);
  return ShowRefusal(call.options, answer.mac, answer.state, RefusalHint(call, answer.state));
}

int RaidOrCreate(const Options &options) {
  const std::string *action = Given(options, "ACTION");
  if (action == nullptr) return Raid(options);
  if (*action != "create")
    return UsageFailure("ACTION must be create, not '" + SafeText(*action) + "'");
  if (!options.arguments.contains("KIND")) return UsageFailure("KIND is required");
  Options create = options;
  create.command += " create";
  return RunSpecial(create);
}

}  // namespace bhctl
