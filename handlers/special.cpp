// One table of commands: who may give them, on which products, and what they do.

#include "handlers/special.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <optional>
#include <span>
#include <string>

#include "access/cipher.h"
#include "access/command_mode.h"
#include "access/keys.h"
#include "access/pass_phrase.h"
#include "access/password.h"
#include "acp/body.h"
#include "acp/reply.h"
#include "daemon/process.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "firmware/update_script.h"
#include "handlers/factory.h"
#include "handlers/mac_address.h"
#include "handlers/maintenance.h"
#include "lib/libbh.h"
#include "lib/shell.h"

namespace {

constexpr int64_t TESTED_BLOCKS = 10000;
constexpr time_t BLINK_TIME = 3;  // seconds

// The request, taken apart once.
struct Special {
  uint8_t code;  // AcpSpecial
  uint32_t extra;
  std::span<const uint8_t> text;  // to the end of the body
  const uint8_t *client;          // MAC, 6 bytes
};

Special ReadSpecial(const AcpRequest &request) {
  const std::span<const uint8_t> body = RequestBody(request);
  return {body.empty() ? uint8_t{0} : body[offsetof(SpecialRequest, code)],
          BodyU32(body, offsetof(SpecialRequest, extra)), BodyFrom(body, sizeof(SpecialRequest)),
          RequesterMac(request)};
}

std::string Text(const Special &special) {
  return BodyText(special.text, 0);
}

bool IsPassword(const std::optional<std::string> &password) {
  return password && CheckPassword(password->c_str()) >= 0;
}

bool IsEmergencySystem() {
  return libbh_GetProductState() == PRODUCT_STATE_EMERGENCY;
}

// The library's power scripts may end this server, so a worker runs them. Without a worker the
// server runs them itself. They always return 0.
uint32_t Reboot(const Special &) {
  const bool emergency = IsEmergencySystem();
  if (emergency || is_zeph_product())
    RunUnlessStopping("/sbin/reboot");
  else if (const pid_t worker = ForkUnlessStopping(); worker == 0)
    _exit(libbh_Reboot());
  else if (worker < 0)
    libbh_Reboot();
  if (!emergency) DebugPrint("libbh_Reboot(). lRet=0x%x\n", static_cast<unsigned>(ACP_STATE_OK));
  return ACP_STATE_OK;
}

uint32_t Shutdown(const Special &) {
  if (IsEmergencySystem() || is_zeph_product()) {
    RunUnlessStopping("/usr/local/bin/shutdown.sh");
    return ACP_STATE_OK;
  }
  const pid_t worker = ForkUnlessStopping();
  if (worker == 0) _exit(libbh_Shutdown());
  if (worker < 0) libbh_Shutdown();
  DebugPrint("libbh_Shutdown(). lRet=0x%x\n", static_cast<unsigned>(ACP_STATE_OK));
  return ACP_STATE_OK;
}

uint32_t BootEmergencySystem(const Special &) {
  return static_cast<uint32_t>(SetEmergenceMode(1));
}

uint32_t BootDiskSystem(const Special &) {
  return static_cast<uint32_t>(SetEmergenceMode(0));
}

// Children that end meanwhile do not cut the time short.
void Sleep(time_t seconds) {
  timespec left = {};
  left.tv_sec = seconds;
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

// The firmware update's script drives the light: it is what blinks.
[[noreturn]] void Blink() {
  DebugPrint("ACP_Special_Reply() start.\n");
  run_fw_update_script(1);
  Sleep(BLINK_TIME);
  run_fw_update_script(0);
  _exit(0);
}

// The last blink's child may have been collected, and its pid may be another child's by now. So
// `led_pid` is the child that was started last, and `live_led` the one that can be waited for.
uint32_t BlinkLed(const Special &) {
  const ChildSignalBlock block;
  if (daemon_state.live_led > 0) WaitForChild(daemon_state.live_led, nullptr);
  DebugPrint("ACP_Special_Reply() led_pid=%d\n", daemon_state.led_pid);
  const pid_t child = ForkWorker();
  if (child == 0) Blink();
  daemon_state.led_pid = child;
  daemon_state.live_led = std::max(child, 0);
  return ACP_STATE_OK;
}

uint32_t SaveConfig(const Special &) {
  libbh_SaveConfig();
  return ACP_STATE_OK;
}

uint32_t LoadConfig(const Special &) {
  libbh_LoadConfig();
  return ACP_STATE_OK;
}

uint32_t InitWeb(const Special &) {
  DebugPrint("ext /usr/lcoalb/in/initweb.sh\n");
  RunCommandLine("sh /usr/local/bin/initweb.sh");
  return ACP_STATE_OK;
}

// The lock is this process's own, until it is unlocked or the server ends.
uint32_t CheckLock(const Special &) {
  return static_cast<uint32_t>(libbh_checklock());
}

uint32_t Lock(const Special &) {
  return static_cast<uint32_t>(libbh_lock());
}

uint32_t Unlock(const Special &) {
  return static_cast<uint32_t>(libbh_unlock());
}

uint32_t VerifyPassword(const Special &special) {
  const uint32_t key = GetKey(special.client);
  if (key == 0) return ACP_STATE_NO_KEY;
  if (!IsPassword(DecodePassword(special.text, key))) return ACP_STATE_PASSWORD_ERROR;
  daemon_state.password_verified = 0;
  return ACP_STATE_OK;
}

uint32_t SwitchCommandMode(const Special &special) {
  if (special.extra != SWITCH_ON) {
    DisableCommandMode();
    return ACP_STATE_OK;
  }
  const uint32_t key = GetKey(special.client);
  if (key == 0) {
    DebugPrint("Enable Command : Password Error!!! failed GetKey.\n");
    return ACP_STATE_NO_KEY;
  }
  const std::optional<std::string> phrase = DecodePassword(special.text, key);
  if (!phrase || ComparePassPhrase(phrase->c_str()) != 0) {
    DebugPrint("Enable Command : Password Error!!!\n");
    return ACP_STATE_PASSWORD_ERROR;
  }
  EnableCommandMode(special.client);
  return ACP_STATE_OK;
}

uint32_t SwitchTrace(const Special &special) {
  const uint32_t others = get_mode_flags() & ~MODE_DEBUG;
  set_mode_flags(special.extra == SWITCH_ON ? others | MODE_DEBUG : others);
  return ACP_STATE_OK;
}

uint32_t ProgramMac(const Special &special) {
  const std::string text = Text(special);
  const bool by_device = daemon_state.product_id >= 5 && daemon_state.product_id <= 7;
  const int32_t result = by_device ? write_mac_address_mipsel(text.c_str())
                                   : init_mac_address(daemon_state.ifname.c_str(), text.c_str());
  return static_cast<uint32_t>(result);
}

// The texts of a password change, both encoded. The old password is there when it is the proof.
struct PasswordTexts {
  std::span<const uint8_t> new_password;
  std::span<const uint8_t> old_password;
};

PasswordTexts ReadPasswords(const Special &special) {
  if (special.extra != PROOF_OLD_PASSWORD) return {special.text, {}};
  const size_t length = std::min(sizeof(PasswordChange), special.text.size());
  return {special.text.first(length), special.text.subspan(length)};
}

// Whether the client may change the password, by what it says for that or has proved before.
bool MayChangePassword(const Special &special, std::span<const uint8_t> old_password,
                       uint32_t key) {
  if (special.extra == PROOF_NONE) return true;
  if (special.extra == PROOF_OLD_PASSWORD) {
    if (IsPassword(DecodePassword(old_password, key))) return true;
    DebugPrint("ERROR!!! CheckPassword()\n");
    return false;
  }
  if (daemon_state.password_verified >= 0) return true;
  DebugPrint("ERROR!!! not parmit.\n");
  return false;
}

// The new password comes as the account database stores it.
uint32_t ChangePassword(const Special &special) {
  const uint32_t key = GetKey(special.client);
  if (key == 0) {
    DebugPrint("ERROR!!! GetKey()\n");
    return ACP_STATE_NO_KEY;
  }
  const PasswordTexts texts = ReadPasswords(special);
  if (!MayChangePassword(special, texts.old_password, key)) return ACP_STATE_PASSWORD_ERROR;
  const std::optional<std::string> password = DecodePassword(texts.new_password, key);
  if (!password || password->empty()) return ACP_STATE_PASSWORD_ERROR;
  RunCommandLine(FormatText("usermod -l admin -p %s admin", QuoteForShell(*password).c_str()));
  DebugPrint("execute usermod. user=%s new_pass=%s\n", "admin", password->c_str());
  return ACP_STATE_OK;
}

// Null for what is no kind of array.
const char *RaidScript(uint32_t kind) {
  if (kind == RAID_KIND_NORMAL) return "sh /usr/local/bin/dkwiz_mknormal.sh";
  if (kind == RAID_KIND_JBOD) return "sh /usr/local/bin/dkwiz_mkjbod.sh";
  if (kind == RAID_KIND_RAID1) return "sh /usr/local/bin/dkwiz_mkraid1.sh";
  return kind == RAID_KIND_RAID5 ? "sh /usr/local/bin/dkwiz_mkraid5.sh" : nullptr;
}

uint32_t CreateRaid(const Special &special) {
  const char *const script = RaidScript(special.extra);
  if (script == nullptr) return ACP_STATE_FAILURE;
  const ChildSignalBlock block;
  const pid_t child = ForkWorker();
  if (child == 0) {
    RunCommandLine(script);
    _exit(0);
  }
  return child > 0 ? ACP_STATE_OK : ACP_STATE_FAILURE;
}

uint32_t SetLanguage(const Special &special) {
  const uint32_t result = static_cast<uint32_t>(special.extra == LANGUAGE_JAPANESE
                                                    ? chage_language("japanese", "CP932")
                                                    : chage_language("english", "CP437"));
  DebugPrint("ACP_Special_Reply() chage_language. lRet=%04x\n", result);
  return result;
}

uint32_t TestDevice(const Special &special) {
  const std::string device = Text(special);
  if (special.extra == TESTED_REMOVABLE)
    return static_cast<uint32_t>(read_write_testUsb(device.c_str()));
  if (special.extra == TESTED_DISK)
    return static_cast<uint32_t>(read_write_test(device.c_str(), TESTED_BLOCKS));
  return ACP_STATE_FAILURE;
}

uint32_t RemoveFile(const Special &special) {
  return remove(Text(special).c_str()) == 0 ? ACP_STATE_OK : ACP_STATE_FAILURE;
}

uint32_t FileChecksum(const Special &special) {
  const uint32_t result = libbh_FileChksum(Text(special).c_str());
  DebugPrint("ACP_Special_Reply()libbh_FileChksum(). lRet=%04x\n", result);
  return result;
}

uint32_t ClearUsbInfo(const Special &) {
  const uint32_t result = static_cast<uint32_t>(clear_usb_info());
  DebugPrint("ACP_Special_Reply() clear_usb_info. lRet=%04x\n", result);
  return result;
}

uint32_t TestUpsPort(const Special &) {
  const uint32_t result = static_cast<uint32_t>(kensa_50_upstest());
  DebugPrint("ACP_Special_Reply() kensa_50_upstest. lRet=%04x\n", result);
  return result;
}

enum class Client { ANY, ENABLED };
enum class Family { ANY, ZEPH };

struct Command {
  AcpSpecial code;
  Client client;
  Family family;
  uint32_t (*run)(const Special &special);
};

const Command COMMANDS[] = {
    {SPECIAL_REBOOT, Client::ENABLED, Family::ANY, Reboot},
    {SPECIAL_SHUTDOWN, Client::ENABLED, Family::ANY, Shutdown},
    {SPECIAL_BOOT_EMERGENCY, Client::ENABLED, Family::ANY, BootEmergencySystem},
    {SPECIAL_BOOT_DISK, Client::ENABLED, Family::ANY, BootDiskSystem},
    {SPECIAL_BLINK, Client::ANY, Family::ANY, BlinkLed},
    {SPECIAL_SAVE_CONFIG, Client::ANY, Family::ANY, SaveConfig},
    {SPECIAL_LOAD_CONFIG, Client::ANY, Family::ANY, LoadConfig},
    {SPECIAL_INIT_WEB, Client::ANY, Family::ANY, InitWeb},
    {SPECIAL_CHECK_LOCK, Client::ANY, Family::ANY, CheckLock},
    {SPECIAL_LOCK, Client::ANY, Family::ANY, Lock},
    {SPECIAL_UNLOCK, Client::ANY, Family::ANY, Unlock},
    {SPECIAL_VERIFY_PASSWORD, Client::ENABLED, Family::ANY, VerifyPassword},
    {SPECIAL_COMMAND_MODE, Client::ANY, Family::ANY, SwitchCommandMode},
    {SPECIAL_TRACE, Client::ANY, Family::ANY, SwitchTrace},
    {SPECIAL_SET_MAC, Client::ENABLED, Family::ANY, ProgramMac},
    {SPECIAL_CHANGE_PASSWORD, Client::ENABLED, Family::ZEPH, ChangePassword},
    {SPECIAL_CREATE_RAID, Client::ENABLED, Family::ZEPH, CreateRaid},
    {SPECIAL_SET_LANGUAGE, Client::ENABLED, Family::ZEPH, SetLanguage},
    {SPECIAL_TEST_DRIVE, Client::ENABLED, Family::ANY, TestDevice},
    {SPECIAL_REMOVE_FILE, Client::ENABLED, Family::ANY, RemoveFile},
    {SPECIAL_FILE_CHECKSUM, Client::ANY, Family::ANY, FileChecksum},
    {SPECIAL_CLEAR_USB, Client::ENABLED, Family::ANY, ClearUsbInfo},
    {SPECIAL_TEST_UPS, Client::ENABLED, Family::ANY, TestUpsPort},
};

uint32_t RunSpecial(const AcpRequest &request, const Special &special) {
  const Command *command =
      std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                   [&special](const Command &candidate) { return candidate.code == special.code; });
  if (command == std::end(COMMANDS)) {
    DebugPrint("ACP_Special_Reply() not support command. cmd=%02x\n", special.code);
    return ACP_STATE_NOT_SUPPORT;
  }
  // Whoever asks, and whatever comes of it, an earlier verification ends here.
  if (special.code == SPECIAL_VERIFY_PASSWORD) daemon_state.password_verified = -1;
  if (command->family == Family::ZEPH && !is_zeph_product()) return ACP_STATE_BAD_PRODUCT;
  if (command->client == Client::ENABLED && CheckEnabledClient(request) != 0)
    return ACP_STATE_NOT_PERMIT;
  return command->run(special);
}

}  // namespace

int32_t ACP_Special_Reply(const AcpRequest &request) {
  const Special special = ReadSpecial(request);
  DebugPrint("-> ACP_Special_Reply command=0x%02X extra=0x%02X\r\n", special.code, special.extra);
  const uint32_t result = RunSpecial(request, special);
  DebugPrint("ACP_Special_Reply() cmd=%02x lRet=0x%x\n", special.code, result);
  SendState(request, ACP_SPECIAL_REPLY, result);
  return 0;
}
