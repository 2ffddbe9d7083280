// One table of commands: who may give them, on which products, and what they do.

#include "handlers/special.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <optional>
#include <span>
#include <string>

#include "access/cipher.h"
#include "access/keys.h"
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
#include "handlers/pass_phrase.h"
#include "lib/libbh.h"
#include "lib/shell.h"

namespace {

// The body, in bytes from its start. The old password is there when a new one comes with it, and
// the text ends before it then.
constexpr size_t EXTRA_AT = 4;
constexpr size_t TEXT_AT = 8;
constexpr size_t OLD_PASSWORD_AT = 24;

constexpr uint8_t VERIFY_PASSWORD = 0x0C;
constexpr uint32_t WITH_OLD_PASSWORD = 0;  // `extra` of a password change
constexpr uint32_t WITHOUT_PASSWORD = 0x5B;
constexpr int64_t TESTED_BLOCKS = 10000;
constexpr time_t BLINK_TIME = 3;  // seconds

uint8_t CommandByte(const AcpRequest &request) {
  const std::span<const uint8_t> body = RequestBody(request);
  return body.empty() ? 0 : body[0];
}

uint32_t Extra(const AcpRequest &request) {
  return BodyU32(RequestBody(request), EXTRA_AT);
}

std::string Text(const AcpRequest &request) {
  return BodyText(RequestBody(request), TEXT_AT);
}

// The encoded text in the body from `begin` to `end`, which may both lie past the body's end.
// Nothing when it is too long for a password.
std::optional<std::string> Decode(const AcpRequest &request, uint32_t key, size_t begin,
                                  size_t end = RECEIVE_BUFFER) {
  const std::span<const uint8_t> body = RequestBody(request);
  begin = std::min(begin, body.size());
  return DecodePassword(body.subspan(begin, std::min(end, body.size()) - begin), key);
}

bool IsPassword(const std::optional<std::string> &password) {
  return password && CheckPassword(password->c_str()) >= 0;
}

bool IsEmergencySystem() {
  return libbh_GetProductState() == PRODUCT_STATE_EMERGENCY;
}

// The library's scripts may end this server: a worker runs them, or without one the server after
// all. They always return 0.
uint32_t Reboot(const AcpRequest &) {
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

uint32_t Shutdown(const AcpRequest &) {
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

uint32_t BootEmergencySystem(const AcpRequest &) {
  return static_cast<uint32_t>(SetEmergenceMode(1));
}

uint32_t BootDiskSystem(const AcpRequest &) {
  return static_cast<uint32_t>(SetEmergenceMode(0));
}

// Children that end meanwhile do not cut the time short.
void Sleep(time_t seconds) {
  timespec left = {};
  left.tv_sec = seconds;
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

[[noreturn]] void Blink() {
  DebugPrint("ACP_Special_Reply() start.\n");
  run_fw_update_script(1);
  Sleep(BLINK_TIME);
  run_fw_update_script(0);
  _exit(0);
}

// The blink before may have been collected, and its number be another child's by now: `led_pid`
// tells what was started last, `live_led` what can be waited for.
uint32_t BlinkLed(const AcpRequest &) {
  const ChildHold hold = HoldChildren();
  if (daemon_state.live_led > 0) WaitForChild(daemon_state.live_led, nullptr);
  DebugPrint("ACP_Special_Reply() led_pid=%d\n", daemon_state.led_pid);
  const pid_t child = ForkWorker();
  if (child == 0) Blink();
  daemon_state.led_pid = child;
  daemon_state.live_led = std::max(child, 0);
  ReleaseChildren(hold);
  return ACP_STATE_OK;
}

uint32_t SaveConfig(const AcpRequest &) {
  libbh_SaveConfig();
  return ACP_STATE_OK;
}

uint32_t LoadConfig(const AcpRequest &) {
  libbh_LoadConfig();
  return ACP_STATE_OK;
}

uint32_t InitWeb(const AcpRequest &) {
  DebugPrint("ext /usr/lcoalb/in/initweb.sh\n");
  RunCommandLine("sh /usr/local/bin/initweb.sh");
  return ACP_STATE_OK;
}

// The lock is this process's own, until it is unlocked or the server ends.
uint32_t CheckLock(const AcpRequest &) {
  return static_cast<uint32_t>(libbh_checklock());
}

uint32_t Lock(const AcpRequest &) {
  return static_cast<uint32_t>(libbh_lock());
}

uint32_t Unlock(const AcpRequest &) {
  return static_cast<uint32_t>(libbh_unlock());
}

uint32_t VerifyPassword(const AcpRequest &request) {
  const uint32_t key = GetKey(RequesterMac(request));
  if (key == 0) return ACP_STATE_NO_KEY;
  if (!IsPassword(Decode(request, key, TEXT_AT))) return ACP_STATE_PASSWORD_ERROR;
  daemon_state.password_verified = 0;
  return ACP_STATE_OK;
}

void DisableCommandMode() {
  DebugPrint("Disnable Command : Done.\n");
  set_mode_flags(get_mode_flags() & ~MODE_COMMAND_ENABLED);
  daemon_state.enable_state = -1;
  memset(daemon_state.enable_mac, 0, sizeof(daemon_state.enable_mac));
}

void EnableCommandMode(const uint8_t *mac) {
  set_mode_flags(get_mode_flags() | MODE_COMMAND_ENABLED);
  daemon_state.enable_state = 0;
  memcpy(daemon_state.enable_mac, mac, sizeof(daemon_state.enable_mac));
  DebugPrint("Enable Command : Password OK!!! MAC=%02X:%02X:%02X:%02X:%02X:%02X\n", mac[0], mac[1],
             mac[2], mac[3], mac[4], mac[5]);
}

uint32_t SwitchCommandMode(const AcpRequest &request) {
  if (Extra(request) != 0) {
    DisableCommandMode();
    return ACP_STATE_OK;
  }
  const uint32_t key = GetKey(RequesterMac(request));
  if (key == 0) {
    DebugPrint("Enable Command : Password Error!!! failed GetKey.\n");
    return ACP_STATE_NO_KEY;
  }
  const std::optional<std::string> phrase = Decode(request, key, TEXT_AT);
  if (!phrase || ComparePassPhrase(phrase->c_str()) != 0) {
    DebugPrint("Enable Command : Password Error!!!\n");
    return ACP_STATE_PASSWORD_ERROR;
  }
  EnableCommandMode(RequesterMac(request));
  return ACP_STATE_OK;
}

uint32_t SwitchTrace(const AcpRequest &request) {
  const uint32_t others = get_mode_flags() & ~MODE_DEBUG;
  set_mode_flags(Extra(request) == 0 ? others | MODE_DEBUG : others);
  return ACP_STATE_OK;
}

uint32_t ProgramMac(const AcpRequest &request) {
  const std::string text = Text(request);
  const bool by_device = daemon_state.product_id >= 5 && daemon_state.product_id <= 7;
  const int32_t result = by_device ? write_mac_address_mipsel(text.c_str())
                                   : init_mac_address(daemon_state.ifname.c_str(), text.c_str());
  return static_cast<uint32_t>(result);
}

// Whether the client may change the password, by what it says for that or has proved before.
bool MayChangePassword(const AcpRequest &request, uint32_t key) {
  const uint32_t extra = Extra(request);
  if (extra == WITHOUT_PASSWORD) return true;
  if (extra == WITH_OLD_PASSWORD) {
    if (IsPassword(Decode(request, key, OLD_PASSWORD_AT))) return true;
    DebugPrint("ERROR!!! CheckPassword()\n");
    return false;
  }
  if (daemon_state.password_verified >= 0) return true;
  DebugPrint("ERROR!!! not parmit.\n");
  return false;
}

// The new password comes as the account database stores it.
uint32_t ChangePassword(const AcpRequest &request) {
  const uint32_t key = GetKey(RequesterMac(request));
  if (key == 0) {
    DebugPrint("ERROR!!! GetKey()\n");
    return ACP_STATE_NO_KEY;
  }
  if (!MayChangePassword(request, key)) return ACP_STATE_PASSWORD_ERROR;
  const size_t end = Extra(request) == WITH_OLD_PASSWORD ? OLD_PASSWORD_AT : RECEIVE_BUFFER;
  const std::optional<std::string> password = Decode(request, key, TEXT_AT, end);
  if (!password || password->empty()) return ACP_STATE_PASSWORD_ERROR;
  RunCommandLine(FormatText("usermod -l admin -p %s admin", QuoteForShell(*password).c_str()));
  DebugPrint("execute usermod. user=%s new_pass=%s\n", "admin", password->c_str());
  return ACP_STATE_OK;
}

// By `extra`; null for what is no kind of array.
const char *RaidScript(uint32_t extra) {
  static constexpr const char *SCRIPTS[] = {
      "sh /usr/local/bin/dkwiz_mknormal.sh", "sh /usr/local/bin/dkwiz_mkjbod.sh",
      "sh /usr/local/bin/dkwiz_mkraid1.sh", "sh /usr/local/bin/dkwiz_mkraid5.sh"};
  constexpr uint32_t FIRST = 3;
  return extra >= FIRST && extra - FIRST < std::size(SCRIPTS) ? SCRIPTS[extra - FIRST] : nullptr;
}

uint32_t CreateRaid(const AcpRequest &request) {
  const char *const script = RaidScript(Extra(request));
  if (script == nullptr) return ACP_STATE_FAILURE;
  const ChildHold hold = HoldChildren();
  const pid_t child = ForkWorker();
  if (child == 0) {
    RunCommandLine(script);
    _exit(0);
  }
  ReleaseChildren(hold);
  return child > 0 ? ACP_STATE_OK : ACP_STATE_FAILURE;
}

uint32_t SetLanguage(const AcpRequest &request) {
  const uint32_t result =
      static_cast<uint32_t>(Extra(request) == 0 ? chage_language("japanese", "CP932")
                                                : chage_language("english", "CP437"));
  DebugPrint("ACP_Special_Reply() chage_language. lRet=%04x\n", result);
  return result;
}

uint32_t TestDevice(const AcpRequest &request) {
  const std::string device = Text(request);
  const uint32_t extra = Extra(request);
  if (extra == 0) return static_cast<uint32_t>(read_write_testUsb(device.c_str()));
  if (extra == 1) return static_cast<uint32_t>(read_write_test(device.c_str(), TESTED_BLOCKS));
  return ACP_STATE_FAILURE;
}

uint32_t RemoveFile(const AcpRequest &request) {
  return remove(Text(request).c_str()) == 0 ? ACP_STATE_OK : ACP_STATE_FAILURE;
}

uint32_t FileChecksum(const AcpRequest &request) {
  const uint32_t result = libbh_FileChksum(Text(request).c_str());
  DebugPrint("ACP_Special_Reply()libbh_FileChksum(). lRet=%04x\n", result);
  return result;
}

uint32_t ClearUsbInfo(const AcpRequest &) {
  const uint32_t result = static_cast<uint32_t>(clear_usb_info());
  DebugPrint("ACP_Special_Reply() clear_usb_info. lRet=%04x\n", result);
  return result;
}

uint32_t TestUpsPort(const AcpRequest &) {
  const uint32_t result = static_cast<uint32_t>(kensa_50_upstest());
  DebugPrint("ACP_Special_Reply() kensa_50_upstest. lRet=%04x\n", result);
  return result;
}

enum class Client { ANY, ENABLED };
enum class Family { ANY, ZEPH };

struct Special {
  uint8_t code;
  Client client;
  Family family;
  uint32_t (*run)(const AcpRequest &request);
};

const Special SPECIALS[] = {
    {0x01, Client::ENABLED, Family::ANY, Reboot},
    {0x02, Client::ENABLED, Family::ANY, Shutdown},
    {0x03, Client::ENABLED, Family::ANY, BootEmergencySystem},
    {0x04, Client::ENABLED, Family::ANY, BootDiskSystem},
    {0x05, Client::ANY, Family::ANY, BlinkLed},
    {0x06, Client::ANY, Family::ANY, SaveConfig},
    {0x07, Client::ANY, Family::ANY, LoadConfig},
    {0x08, Client::ANY, Family::ANY, InitWeb},
    {0x09, Client::ANY, Family::ANY, CheckLock},
    {0x0A, Client::ANY, Family::ANY, Lock},
    {0x0B, Client::ANY, Family::ANY, Unlock},
    {VERIFY_PASSWORD, Client::ENABLED, Family::ANY, VerifyPassword},
    {0x0D, Client::ANY, Family::ANY, SwitchCommandMode},
    {0x0E, Client::ANY, Family::ANY, SwitchTrace},
    {0x0F, Client::ENABLED, Family::ANY, ProgramMac},
    {0x10, Client::ENABLED, Family::ZEPH, ChangePassword},
    {0x11, Client::ENABLED, Family::ZEPH, CreateRaid},
    {0x12, Client::ENABLED, Family::ZEPH, SetLanguage},
    {0x40, Client::ENABLED, Family::ANY, TestDevice},
    {0x41, Client::ENABLED, Family::ANY, RemoveFile},
    {0x42, Client::ANY, Family::ANY, FileChecksum},
    {0x45, Client::ENABLED, Family::ANY, ClearUsbInfo},
    {0x50, Client::ENABLED, Family::ANY, TestUpsPort},
};

uint32_t RunSpecial(const AcpRequest &request, uint8_t code) {
  const Special *special =
      std::find_if(std::begin(SPECIALS), std::end(SPECIALS),
                   [code](const Special &candidate) { return candidate.code == code; });
  if (special == std::end(SPECIALS)) {
    DebugPrint("ACP_Special_Reply() not support command. cmd=%02x\n", code);
    return ACP_STATE_NOT_SUPPORT;
  }
  // Whoever asks, and whatever comes of it, an earlier verification ends here.
  if (code == VERIFY_PASSWORD) daemon_state.password_verified = -1;
  if (special->family == Family::ZEPH && !is_zeph_product()) return ACP_STATE_BAD_PRODUCT;
  if (special->client == Client::ENABLED && CheckEnabledClient(request) != 0)
    return ACP_STATE_NOT_PERMIT;
  return special->run(request);
}

}  // namespace

int32_t ACP_Special_Reply(const AcpRequest &request) {
  const uint8_t code = CommandByte(request);
  DebugPrint("-> ACP_Special_Reply command=0x%02X extra=0x%02X\r\n", code, Extra(request));
  const uint32_t result = RunSpecial(request, code);
  DebugPrint("ACP_Special_Reply() cmd=%02x lRet=0x%x\n", code, result);
  SendState(request, ACP_SPECIAL_REPLY, result);
  return 0;
}
