// Host name, workgroup, and the restart of the services that depend on them.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lib/codes.h"
#include "lib/hosts.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr const char *SAMBA_FILE = "/etc/samba/smb.conf";
constexpr const char *ATALK_FILE = "/etc/atalk/atalkd.conf";
constexpr const char *INFO_SCRIPT = "/etc/korsub_info.sh";  // where there is no information file
constexpr const char *SCRATCH_FILE = "/tmp/libbh_tmp";

constexpr const char *WORKGROUP_KEY = "workgroup";
constexpr const char *INFO_WORKGROUP_KEY = "wg";

constexpr const char *SHOW_HOST_NAME = "/bin/hostname";
constexpr size_t MAX_NAME = 16;  // of a host and of a workgroup
constexpr size_t MAX_OLD_NAME = 63;
constexpr size_t MAX_NAME_LINE = 126;
constexpr int32_t MAX_USED = 4096;  // bytes of a caller's buffer

// Products up to this ID keep their information file in EUC-JP.
constexpr int32_t LAST_EUC_PRODUCT = 0x2000;

bool IsLetterOrDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Lengths are kept in 16 bits.
bool HasNameLength(const char *name) {
  const size_t length = name == nullptr ? 0 : strlen(name) % 65536;
  return length >= 1 && length <= MAX_NAME;
}

int32_t ReadWorkgroup(const char *path, char *buffer, int32_t size) {
  const HeapText value(libbh_GetConfigValue(path, WORKGROUP_KEY));
  if (!value) return NO_WORKGROUP;
  const size_t length = strlen(value.get());
  const size_t capacity = size > 0 ? static_cast<size_t>(size) : 0;
  if (length == 0 || length > MAX_NAME || length > capacity) return BAD_WORKGROUP;
  if (buffer == nullptr) return libbh_SysError(EINVAL);
  memcpy(buffer, value.get(), std::min(length + 1, capacity));
  return 0;
}

int32_t SetSambaWorkgroup(const char *name) {
  if (libbh_checklock() != 0) return NOT_LOCKED;
  if (!HasNameLength(name)) return BAD_WORKGROUP;
  libbh_SetConfigValue(SAMBA_FILE, WORKGROUP_KEY, name);
  return 0;
}

bool AreEqual(const char *path, const char *other) {
  std::string content;
  std::string other_content;
  return ReadTextFile(path, content) == 0 && ReadTextFile(other, other_content) == 0 &&
         content == other_content;
}

// Without a whole copy the information file stays as it is. The copy itself tells: in a program
// that ignores SIGCHLD no command has a status.
void ReencodeInfo(const char *workgroup) {
  if (!RemoveLeftover(SCRATCH_FILE)) return;
  RunShell("cp /etc/korvo/info /tmp/libbh_tmp");
  if (AreEqual(INFO_FILE, SCRATCH_FILE) &&
      libbh_SetConfigValue(SCRATCH_FILE, INFO_WORKGROUP_KEY, workgroup) == 0)
    RunShell("nkf -e /tmp/libbh_tmp > /etc/korvo/info");
  unlink(SCRATCH_FILE);
}

void SetInfoWorkgroup(const char *name) {
  if (!FileExists(INFO_FILE)) {
    libbh_SetConfigValue(INFO_SCRIPT, INFO_WORKGROUP_KEY, name);
  } else if (libbh_GetProductId() > LAST_EUC_PRODUCT) {
    libbh_SetConfigValue(INFO_FILE, INFO_WORKGROUP_KEY, name);
  } else {
    ReencodeInfo(name);
  }
}

// The old name's lines leave the hosts file, whatever else they say.
int32_t ReplaceHostsName(const std::string &old_name, const char *name, const char *ifname) {
  std::string kept;
  int error = ReadOtherHosts(old_name, kept);
  if (error != 0) return libbh_SysError(error);
  IfInfo record = {};
  if (CopyToField(record.name, sizeof(record.name), ifname)) libbh_GetIfInfo(&record, 1);
  error = WriteHosts(std::move(kept), record.addr.sin_addr, name);
  return error == 0 ? 0 : libbh_SysError(error);
}

}  // namespace

int32_t libbh_CheckHostName(const char *text) {
  if (text == nullptr) return -1;
  char last = '.';  // no dot may come first
  for (const char *in = text; *in != '\0'; ++in) {
    const bool fits = IsLetterOrDigit(*in) || *in == '-' || (*in == '.' && last != '.');
    if (!fits) return -1;
    last = *in;
  }
  return text[0] != '\0' && last == '.' ? -1 : 0;
}

int32_t libbh_GetHostName(char *buffer, int32_t size) {
  if (size == 0) {
    const std::string line = FirstOutputLine(SHOW_HOST_NAME, MAX_NAME_LINE);
    return -static_cast<int32_t>(line.size());
  }
  if (buffer == nullptr || size < 0) return libbh_SysError(EINVAL);
  buffer[0] = '\0';
  if (size < 3) return 0;
  const size_t longest = static_cast<size_t>(std::min(size, MAX_USED) - 2);
  const std::string name = WithoutNewline(FirstOutputLine(SHOW_HOST_NAME, longest));
  memcpy(buffer, name.c_str(), name.size() + 1);
  return 0;
}

int32_t libbh_SetApHostName(int32_t mode, const char *name, int32_t restart, const char *ifname) {
  if (libbh_checklock() != 0) return NOT_LOCKED;
  if (!HasNameLength(name)) return BAD_HOST_NAME;
  if (mode != 0) return 0;
  const std::string old_name = WithoutNewline(FirstOutputLine(SHOW_HOST_NAME, MAX_OLD_NAME));
  if (old_name == name) return 0;
  RunShell(FormatText("hostname %s", QuoteForShell(name).c_str()));
  const int32_t result = ReplaceHostsName(old_name, name, ifname);
  if (result != 0) return result;
  if (restart != 0) {
    libbh_RestartNetwork(ifname);
    libbh_RestartSamba();
    libbh_RestartAtalk();
  }
  return 0;
}

int32_t libbh_GetGroupName(char *buffer, int32_t size) {
  return ReadWorkgroup(SAMBA_FILE, buffer, size);
}

int32_t libbh_GetAtalkWorkgroup(char *buffer, int32_t size) {
  return ReadWorkgroup(ATALK_FILE, buffer, size);
}

int32_t libbh_SetGroupName(int32_t, const char *name, int32_t restart) {
  const int32_t result = SetSambaWorkgroup(name);
  if (result != 0) return result;
  SetInfoWorkgroup(name);
  if (restart != 0) libbh_RestartSamba();
  return 0;
}

int32_t libbh_SetSmbWorkgroup(int32_t, const char *name, int32_t restart) {
  const int32_t result = SetSambaWorkgroup(name);
  if (result == 0 && restart != 0) libbh_RestartSamba();
  return result;
}

int32_t libbh_RestartNetwork(const char *) {
  RunShell("/etc/init.d/networking restart");
  return 0;
}

int32_t libbh_RestartSamba() {
  RunShell("/etc/init.d/smb restart");
  return 0;
}

int32_t libbh_RestartAtalk() {
  RunShell("/etc/init.d/atalk restart");
  return 0;
}
