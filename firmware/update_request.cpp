// The request that begins a firmware update. The two product families differ in who may update and
// in where images go; what follows a request's admission they share.

#include "firmware/update_request.h"

#include <arpa/inet.h>
#include <sys/mount.h>
#include <sys/vfs.h>

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "access/cipher.h"
#include "access/command_mode.h"
#include "access/keys.h"
#include "access/password.h"
#include "acp/body.h"
#include "acp/reply.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "firmware/image.h"
#include "firmware/install.h"
#include "firmware/receiver.h"
#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/text.h"

namespace {

constexpr int32_t WITH_ZIP_PASSWORD = 3;  // variant

// What an image of a kind is installed on.
struct Target {
  uint32_t firm_type;
  const char *device;
  uint32_t (*prepare)();  // the state that it leads to; null: nothing to prepare
};

// A family's names in the trace, and its answers to what fits none of its targets.
struct Family {
  const char *name;
  std::span<const Target> targets;
  uint32_t bad_type;
  uint32_t bad_product;
  bool traces_key_file;
};

struct Partition {
  const char *device;
  const char *directory;
  const char *fstype;
};
constexpr Partition SYSTEM_PARTITION = {DISK_TARGET, "/mnt/hda1", "ext2"};
constexpr Partition ZIP_PARTITION = {"/dev/hda3", "/mnt/hda3", "ext3"};
constexpr const char *ARRAY = "/mnt/array1";
constexpr int64_t TOO_FEW_MEGABYTES = 199;

constexpr uint32_t MAX_IN_TMP = 0x7FFFFF;  // image bytes; /tmp is a small RAM disk

void SetPartitions(const char *system, const char *zip) {
  CopyToField(daemon_state.system_part, sizeof(daemon_state.system_part), system);
  CopyToField(daemon_state.zip_part, sizeof(daemon_state.zip_part), zip);
}

bool Mount(const Partition &partition) {
  return libbh_Mount(partition.device, partition.directory, partition.fstype) == 0;
}

uint32_t MountPartitions() {
  SetPartitions(SYSTEM_PARTITION.directory, ZIP_PARTITION.directory);
  umount(SYSTEM_PARTITION.directory);
  umount(ZIP_PARTITION.directory);
  if (Mount(SYSTEM_PARTITION) && Mount(ZIP_PARTITION)) return ACP_STATE_OK;
  DebugPrint("ACP_FIRMUP2_REPLY failed libbh_Mount()\n");
  return ACP_STATE_FAILURE;
}

uint32_t CheckArray() {
  SetPartitions(ARRAY, ARRAY);
  struct statfs status = {};
  if (statfs(ARRAY, &status) != 0) {
    DebugPrint("statfs() faild!!!\n");
    return ACP_STATE_NO_SPACE;
  }
  const int64_t size = static_cast<int64_t>(status.f_blocks / 2048) * (status.f_bsize / 512);
  DebugPrint("statfs() /mnt/array1 size=%ld MB\n", static_cast<long>(size));
  return size > TOO_FEW_MEGABYTES ? ACP_STATE_OK : ACP_STATE_NO_SPACE;
}

const Target FLASH_AND_DISK[] = {
    {1, "/dev/mtdblock0", nullptr},
    {2, "/dev/mtdblock1", nullptr},
    {4, SYSTEM_PARTITION.device, MountPartitions},
};

const Target ZEPH_FLASH_AND_ARRAY[] = {
    {1, "/dev/mtd0", nullptr},
    {2, "/dev/mtd1", nullptr},
    {5, "/dev/mtd4", nullptr},
    {6, DISK_TARGET, CheckArray},
};

constexpr Family FIRST = {"ACP_FIRMUP2_REPLY", FLASH_AND_DISK, ACP_STATE_FAILURE, ACP_STATE_FAILURE,
                          false};
constexpr Family ZEPH = {"ACP_FIRMUP_ZEPH_REPLY", ZEPH_FLASH_AND_ARRAY, ACP_STATE_BAD_FIRM_TYPE,
                         ACP_STATE_BAD_PRODUCT, true};

// The request, taken apart once. The passwords are still encoded.
struct Update {
  uint32_t firm_type;
  uint32_t firm_pid;
  uint32_t firm_size;
  uint32_t true_chksum;
  uint32_t zip_pass_len;
  std::vector<uint8_t> password;  // with what follows it
  size_t password_capacity;       // bytes of it that count
  std::span<const uint8_t> zip_pass_enc;
};

// The bytes from the password on as they came over the wire: those of the archive password's length
// have been converted as a number.
std::vector<uint8_t> PasswordBytes(std::span<const uint8_t> body) {
  constexpr size_t NUMBER = offsetof(UpdateRequest, zip_pass_len);
  const std::span<const uint8_t> field = BodyFrom(body, offsetof(UpdateRequest, password));
  std::vector<uint8_t> bytes(field.begin(), field.end());
  if (body.size() < sizeof(UpdateRequest)) return bytes;
  const uint32_t number = BodyU32(body, NUMBER);
  for (size_t i = 0; i < sizeof(number); ++i)
    bytes[NUMBER - offsetof(UpdateRequest, password) + i] = static_cast<uint8_t>(number >> (8 * i));
  return bytes;
}

Update ReadUpdate(const AcpRequest &request, int32_t variant) {
  const std::span<const uint8_t> body = RequestBody(request);
  Update update = {};
  update.firm_type = BodyU32(body, offsetof(UpdateRequest, firm_type));
  update.firm_pid = BodyU32(body, offsetof(UpdateRequest, firm_pid));
  update.firm_size = BodyU32(body, offsetof(UpdateRequest, firm_size));
  update.true_chksum = BodyU32(body, offsetof(UpdateRequest, true_chksum));
  update.password = PasswordBytes(body);
  update.password_capacity = update.password.size();
  if (variant == WITH_ZIP_PASSWORD) {
    update.password_capacity = std::min(update.password_capacity, sizeof(UpdateRequest::password));
    update.zip_pass_len = BodyU32(body, offsetof(UpdateRequest, zip_pass_len));
    update.zip_pass_enc = BodyFrom(body, sizeof(UpdateRequest));
  }
  return update;
}

void ForgetLastUpdate(uint32_t true_chksum) {
  daemon_state.firm_chksum = true_chksum;
  daemon_state.firm_dev = nullptr;
  daemon_state.system_part[0] = '\0';
  daemon_state.zip_part[0] = '\0';
  daemon_state.zip_pass[0] = '\0';
}

// False when another process holds the configuration lock, which it keeps.
bool TakeLock(const AcpRequest &request, const Family &family) {
  if (libbh_lock() != NOW_LOCKING) return true;
  SendState(request, ACP_FIRMUP2_REPLY, ACP_STATE_NOW_LOCKING);
  DebugPrint("%s NOW_LOCKING==libbh_lock() >>>>>>>>\n", family.name);
  return false;
}

// In front of an archive password the text ends with its field, and may run on over what follows
// otherwise. In neither case may it be longer than a password's buffer.
std::optional<std::string> AdministratorPassword(const Update &update, uint32_t key) {
  std::optional<std::string> whole = DecodePassword(update.password, key);
  if (!whole || update.password_capacity == update.password.size()) return whole;
  return DecodePassword(std::span(update.password).first(update.password_capacity), key);
}

uint32_t CheckAdministrator(const Update &update, uint32_t key) {
  if (key == 0) return ACP_STATE_NO_KEY;
  const std::optional<std::string> password = AdministratorPassword(update, key);
  return password && CheckPassword(password->c_str()) >= 0 ? ACP_STATE_OK
                                                           : ACP_STATE_PASSWORD_ERROR;
}

// False when the password does not fit its field, which then stays empty.
bool TakeZipPassword(const Update &update, uint32_t key) {
  if (key == 0 || update.zip_pass_len == 0) return true;
  const std::optional<std::string> password =
      DecodePassword(update.zip_pass_enc, key, sizeof(daemon_state.zip_pass));
  return password &&
         CopyToField(daemon_state.zip_pass, sizeof(daemon_state.zip_pass), password->c_str());
}

uint32_t ChooseTarget(const Update &update, const Family &family) {
  const auto target = std::find_if(
      family.targets.begin(), family.targets.end(),
      [&](const Target &candidate) { return candidate.firm_type == update.firm_type; });
  if (target == family.targets.end()) {
    DebugPrint("%s Unknown FIRM_TYPE acpfirm3->firm_type=0x%x\n", family.name, update.firm_type);
    return family.bad_type;
  }
  daemon_state.firm_dev = target->device;
  return target->prepare == nullptr ? ACP_STATE_OK : target->prepare();
}

// The product is looked at whatever came of the type before, and wins.
uint32_t CheckImage(const Update &update, const Family &family) {
  const uint32_t state = ChooseTarget(update, family);
  if (update.firm_pid == daemon_state.product_id) return state;
  DebugPrint("%s not equal FIRM PID=0x%x ProductID=0x%x\n", family.name, update.firm_pid,
             daemon_state.product_id);
  return family.bad_product;
}

void ChooseKeyFile(uint32_t firm_size) {
  const std::string directory = daemon_state.zip_part;
  const bool on_disk = !directory.empty() && firm_size > MAX_IN_TMP;
  const std::string path = (on_disk ? directory : "/tmp") + "/kv_firm_mem";
  if (path != daemon_state.firm_mem_path) RemoveSegment(FindImage());  // nobody would find it again
  CopyToField(daemon_state.firm_mem_path, sizeof(daemon_state.firm_mem_path), path.c_str());
}

// An end request may follow all the same. It must not install an earlier upload on this target.
int32_t Refuse(const AcpRequest &request, uint32_t state) {
  daemon_state.firm_dev = nullptr;
  SendState(request, ACP_FIRMUP2_REPLY, state);
  libbh_unlock();
  return 0;
}

int32_t StartReceiver(const AcpRequest &request, const Update &update, const Family &family) {
  ChooseKeyFile(update.firm_size);
  if (family.traces_key_file) DebugPrint("SHM_MEM_FOR_FIRM=%s\n", daemon_state.firm_mem_path);
  if (!CreateImage(update.firm_size)) {
    Refuse(request, ACP_STATE_FAILURE);
    DebugPrint("%s shmget() error. >>>>>>>>\n", family.name);
    return 0;
  }
  pid_t child = firm_recive(update.firm_size);
  if (child == -1) {
    DebugPrint("firm_recive() fialed.\n");
    child = 0;
  }
  SendState(request, ACP_FIRMUP2_REPLY, ACP_STATE_OK);
  DebugPrint("%s ACP_STATE_OK >>>>>>>>>>>>\n", family.name);
  DebugPrint("   ip=0x%x port=0x%x\n", ntohl(request.peer_addr), ntohs(request.peer_port));
  libbh_unlock();
  return child;
}

// What both families do with an admitted request.
int32_t PrepareUpdate(const AcpRequest &request, const Update &update, const Family &family) {
  const uint32_t state = CheckImage(update, family);
  if (state == ACP_STATE_OK) return StartReceiver(request, update, family);
  Refuse(request, state);
  DebugPrint("%s result != ACP_STATE_OK >>>>>>>>\n", family.name);
  return 0;
}

}  // namespace

int32_t ACP_Firmup_Reply(const AcpRequest &request, int32_t variant) {
  const Update update = ReadUpdate(request, variant);
  ForgetLastUpdate(update.true_chksum);
  if (!TakeLock(request, FIRST)) return 0;
  const uint32_t key = GetKey(RequesterMac(request));
  uint32_t state = CheckAdministrator(update, key);
  if (state == ACP_STATE_OK && !TakeZipPassword(update, key)) state = ACP_STATE_PASSWORD_ERROR;
  if (state == ACP_STATE_OK) return PrepareUpdate(request, update, FIRST);
  Refuse(request, state);
  DebugPrint("ACP_FIRMUP2_REPLY ACP_STATE_PASSWORD_ERROR >>>>>>>>\n");
  return 0;
}

int32_t ACP_Firmup_Zeph_Reply(const AcpRequest &request, int32_t variant) {
  const Update update = ReadUpdate(request, variant);
  ForgetLastUpdate(update.true_chksum);
  if (!TakeLock(request, ZEPH)) return 0;
  const bool admitted = CheckEnabledClient(request) >= 0 && daemon_state.password_verified >= 0;
  if (!admitted || !TakeZipPassword(update, GetKey(RequesterMac(request))))
    return Refuse(request, ACP_STATE_PASSWORD_ERROR);
  return PrepareUpdate(request, update, ZEPH);
}
