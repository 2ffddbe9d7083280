// The board's root directory: the host's directories with changes kept in memory, the appliance's
// own files over them, and file systems of the board's own where a program could reach the machine.
//
// A change of the host's shows through an overlay. So /etc, which tests compare, is a copy: its
// files, and those of its directories that the appliance has too.
//
// Everything is put together on a tmpfs over /sys, which the board has no use for: "root" becomes
// the root, "upper" takes the changes and "work" is overlayfs' scratch. An overlay cannot span
// mounts that lie beneath its lower directory; such a directory is made anew with its entries one
// by one.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "board/internal.h"

namespace board {

namespace fs = std::filesystem;

namespace {

// Directories of the root that are the board's own. All but /etc are empty at first.
constexpr std::string_view OWN[] = {"/etc", "/proc", "/sys", "/dev",
                                    "/tmp", "/run",  "/mnt", "/www"};

// Directories that the appliance has and that a board has to be able to change: without root's
// rights only what is new or stands in "upper" can be.
constexpr struct {
  const char *path;
  mode_t mode;
} DIRECTORIES[] = {
    {"/etc/atalk", 0755},
    {"/etc/dhcpc", 0755},
    {"/etc/init.d", 0755},
    {"/etc/tmp", 0755},
    {"/etc/rc0.d", 0755},
    {"/etc/rc1.d", 0755},
    {"/etc/rc2.d", 0755},
    {"/etc/rc3.d", 0755},
    {"/etc/rc4.d", 0755},
    {"/etc/rc5.d", 0755},
    {"/etc/rc6.d", 0755},
    {"/root", 0700},
    {"/var/log", 0755},
    {"/var/tmp", 01777},
    {"/tmp", 01777},
    {"/run/lock", 01777},
    {"/mnt/array1", 0755},
    {"/mnt/array2", 0755},
    {"/mnt/disk1", 0755},
    {"/mnt/disk2", 0755},
    {"/mnt/disk3", 0755},
    {"/mnt/disk4", 0755},
    {"/mnt/usbdisk1", 0755},
    {"/mnt/usbdisk2", 0755},
    {"/mnt/usbdisk3", 0755},
    {"/mnt/usbdisk4", 0755},
    {"/mnt/hda1", 0755},
    {"/mnt/hda3", 0755},
    {"/run/disks/hda1", 0755},
    {"/run/disks/hda3", 0755},
    {"/dev/pts", 0755},
    {"/dev/shm", 01777},
    {"/run/kernel-proc", 0555},
    {"/run/mount-view", 0755},
    {"/sys", 0555},
    {"/usr/lib/systemd/system", 0755},
    {"/usr/share/bash-completion/completions", 0755},
    {"/usr/share/man/man1", 0755},
    {"/usr/share/man/man8", 0755},
};

constexpr const char *DEVICES[] = {"null", "zero", "full", "random", "urandom", "tty"};

// Where files of the host are bound to their place on the board.
constexpr const char *PRODUCTS[][2] = {{"bh_servd", "/usr/sbin"}, {"bhctl", "/usr/bin"}};

constexpr int MAX_DEPTH = 4;  // of directories whose entries are copied one by one

constexpr off_t LARGE_FILE = 1 << 20;  // from here on a file is bound, not copied

}  // namespace

bool IsOwn(std::string_view path) {
  const std::string_view top = path.substr(0, path.find('/', 1));
  return std::find(std::begin(OWN), std::end(OWN), top) != std::end(OWN);
}

namespace {

// Where a directory of the appliance lies on the board: the host's /sbin may be a link to
// /usr/sbin, as its /var/run is one to /run.
std::string Resolve(const std::string &directory) {
  std::error_code error;
  return IsOwn(directory) ? directory : fs::weakly_canonical(directory, error).string();
}

bool MakeReadOnly(const std::string &mount_point) {
  struct mount_attr attributes {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  return mount_setattr(AT_FDCWD, mount_point.c_str(), 0, &attributes, sizeof(attributes)) == 0;
}

bool Bind(const std::string &from, const std::string &to) {
  return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

bool Touch(const std::string &path, mode_t mode) {
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode));
  return file.IsOpen() && fchmod(file.Get(), mode) == 0;
}

bool Overlay(const std::string &path) {
  static int number = 0;
  const std::string work = "work/" + std::to_string(number++);
  if (!MakeDirectories("root", path, "") || !MakeDirectories("upper", path, "")) return false;
  if (mkdir(work.c_str(), 0700) != 0) return false;
  const std::string options = "lowerdir=" + path + ",upperdir=upper" + path + ",workdir=" + work;
  const std::string target = "root" + path;
  return mount("board", target.c_str(), "overlay", 0, (options + ",userxattr").c_str()) == 0 ||
         mount("board", target.c_str(), "overlay", 0, options.c_str()) == 0;
}

bool MakeDirectory(const std::string &path, mode_t mode) {
  return mkdir(path.c_str(), 0755) == 0 ? chmod(path.c_str(), mode & 07777) == 0 : errno == EEXIST;
}

void ComposeDirectory(const std::string &path, int depth);

void ComposeEntry(const std::string &path, int depth) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return;
  const std::string target = "root" + path;
  if (S_ISDIR(info.st_mode)) {
    const bool overlaid = (!IsOwn(path) || access(target.c_str(), F_OK) != 0) &&
                          access(path.c_str(), R_OK | X_OK) == 0 && Overlay(path);
    if (!overlaid && MakeDirectory(target, info.st_mode)) ComposeDirectory(path, depth + 1);
  } else if (S_ISLNK(info.st_mode) || (S_ISREG(info.st_mode) && info.st_size < LARGE_FILE)) {
    CopyEntry(path, target);
  } else if (S_ISREG(info.st_mode) && !IsOwn(path) && Touch(target, 0600)) {
    Bind(path, target) && MakeReadOnly(target);
  }
}

// A directory that cannot or may not be overlaid as a whole: its entries one by one. What cannot be
// read or bound is left out; what is needed of it is found missing later, by name.
void ComposeDirectory(const std::string &path, int depth) {
  if (depth > MAX_DEPTH) return;
  std::error_code error;
  for (const fs::directory_entry &entry : fs::directory_iterator(depth == 0 ? "/" : path, error))
    if (depth > 0 || !IsOwn(entry.path().string())) ComposeEntry(entry.path().string(), depth);
}

// The directories that the appliance has: those of `rootfs`, and the empty ones.
std::vector<std::string> ApplianceDirectories(const std::string &rootfs) {
  std::vector<std::string> directories;
  std::error_code error;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(rootfs, error))
    if (!entry.is_symlink() && entry.is_directory())
      directories.push_back(entry.path().string().substr(rootfs.size()));
  for (const auto &directory : DIRECTORIES)
    directories.emplace_back(directory.path);
  return directories;
}

std::string StageDirectory(const std::string &directory) {
  const bool own = IsOwn(directory);
  if (MakeDirectories(own ? "root" : "upper", directory, own ? "/none" : "")) return "";
  return Failure("cannot make " + directory);
}

std::string StageDirectories(const std::vector<std::string> &directories) {
  std::string why;
  for (const std::string &directory : directories)
    if (why.empty()) why = StageDirectory(Resolve(directory));
  for (const auto &directory : DIRECTORIES) {
    const std::string path = Resolve(directory.path);
    chmod(((IsOwn(path) ? "root" : "upper") + path).c_str(), directory.mode);
  }
  return why;
}

std::string CopyAppliance(const std::string &rootfs, const std::vector<std::string> &directories) {
  for (const std::string &directory : directories) {
    const std::string place = "root" + Resolve(directory);
    if (!MakeDirectories("root", Resolve(directory), "")) return Failure("cannot make " + place);
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(rootfs + directory, error)) {
      if (!entry.is_symlink() && entry.is_directory()) continue;
      const std::string file = place + "/" + entry.path().filename().string();
      if (!CopyEntry(entry.path().string(), file)) return Failure("cannot write " + file);
    }
  }
  return "";
}

std::string BindProducts(const Config &config) {
  const bool native = config.powerpc.empty();
  if (std::string why = native ? "" : InstallPowerpc(config, "root"); !why.empty()) return why;
  for (const auto &[name, directory] : PRODUCTS) {
    const std::string product = (native ? config.products : config.powerpc) + "/" + name;
    const std::string place = "root" + Resolve(directory) + "/" + name;
    if (access(product.c_str(), X_OK) != 0) continue;
    if (!native) {
      if (std::string why = InstallPowerpcProgram(product, place); !why.empty()) return why;
    } else if (!Touch(place, 0755) || !Bind(product, place) || !MakeReadOnly(place))
      return Failure("cannot bind " + place);
  }
  for (const std::string &directory : config.share) {
    if (!MakeDirectories("root", directory, "") || !Bind(directory, "root" + directory))
      return Failure("cannot bind " + directory);
  }
  return "";
}

// The speed limit of rebuilding arrays would be the machine's.
bool MakeRaidLimit(const std::string &place) {
  return mount("board", place.c_str(), "tmpfs", 0, "mode=755") == 0 &&
         mkdir((place + "/raid").c_str(), 0755) == 0 &&
         Touch(place + "/raid/speed_limit_max", 0644);
}

// The fresh procfs is read-only: much of it would be the machine's, and root's ids are its own
// here. Only what belongs to the board's namespaces may be written.
std::string MountProc() {
  const std::string proc = "root/run/kernel-proc";
  if (mount("proc", proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
    return Failure(
        "no fresh /proc can be mounted; where parts of /proc are masked (in a container), "
        "start it with --privileged or --security-opt systempaths=unconfined");
  for (const char *writable : {"/sys/net", "/sys/kernel/shmmax"})
    if (!Bind(proc + writable, proc + writable)) return Failure(writable);
  if (!MakeRaidLimit(proc + "/sys/dev")) return Failure("/proc/sys/dev");
  if (!MakeReadOnly(proc)) return Failure("/proc");
  std::error_code error;
  for (const fs::directory_entry &entry : fs::directory_iterator(proc, error)) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") == std::string::npos || name == "mounts") continue;
    const std::string target = "/run/kernel-proc/" + name;
    if (symlink(target.c_str(), ("root/proc/" + name).c_str()) != 0 && errno != EEXIST)
      return Failure("/proc/" + name);
  }
  return "";
}

std::string MakeDevices() {
  for (const std::string name : DEVICES)
    if (!Touch("root/dev/" + name, 0666) || !Bind("/dev/" + name, "root/dev/" + name))
      return Failure("/dev/" + name);
  if (mount("devpts", "root/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
            "newinstance,ptmxmode=0666,mode=620") != 0)
    return Failure("/dev/pts");
  static constexpr const char *LINKS[][2] = {{"/run/kernel-proc/self/fd", "fd"},
                                             {"fd/0", "stdin"},
                                             {"fd/1", "stdout"},
                                             {"fd/2", "stderr"},
                                             {"pts/ptmx", "ptmx"}};
  for (const auto &[target, name] : LINKS)
    if (symlink(target, ("root/dev/" + std::string(name)).c_str()) != 0) return Failure(name);
  return "";
}

// /mnt is shared with a copy of itself below /run/mount-view, so that a process whose root is there
// finds the appliance's own mounts, and no others, in its mount table.
std::string MountStorage() {
  const std::string view = "root/run/mount-view";
  const bool made = mount("root", view.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                    mount(nullptr, "root/mnt", nullptr, MS_SHARED, nullptr) == 0 &&
                    mount("root/mnt", (view + "/mnt").c_str(), nullptr, MS_BIND, nullptr) == 0;
  return made ? "" : Failure("/run/mount-view");
}

std::string SetProductId(const std::string &id) {
  if (id.empty()) return "";
  std::ifstream in("root/proc/brackenhold");
  std::string text;
  for (std::string line; std::getline(in, line);)
    text += (line.starts_with("PRODUCTID=") ? "PRODUCTID=\"" + id + "\"" : line) + "\n";
  in.close();
  std::ofstream out("root/proc/brackenhold");
  return (out << text << std::flush) ? "" : "cannot write /proc/brackenhold";
}

std::string MakeLogs() {
  for (const char *log : {CALL_LOG, SYSLOG})
    if (!Touch("root" + std::string(log), 0666)) return Failure(log);
  const std::string clock = "root/run/board-clock";
  return Touch(clock, 0666) && truncate(clock.c_str(), sizeof(int64_t)) == 0 ? "" : Failure(clock);
}

std::string StartStaging() {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("board", "/sys", "tmpfs", 0, "mode=755") != 0 || chdir("/sys") != 0 ||
      mkdir("root", 0755) != 0 || mount("board", "root", "tmpfs", 0, "mode=755") != 0 ||
      mkdir("root/mnt", 0755) != 0 || mount("board", "root/mnt", "tmpfs", 0, "mode=755") != 0 ||
      mkdir("upper", 0755) != 0 || mkdir("work", 0700) != 0)
    return Failure("cannot mount a tmpfs");
  return "";
}

std::string EnterRoot() {
  if (chdir("root") != 0 || syscall(SYS_pivot_root, ".", ".") != 0 ||
      umount2(".", MNT_DETACH) != 0 || chdir("/") != 0)
    return Failure("pivot_root");
  return "";
}

// Tells a kernel without overlays from a directory that cannot be overlaid.
std::string ProbeOverlay() {
  if (mkdir("work/lower", 0755) == 0 && mkdir("work/upper", 0755) == 0 &&
      mkdir("work/work", 0755) == 0 &&
      mount("board", "work/lower", "overlay", 0,
            "lowerdir=work/lower,upperdir=work/upper,workdir=work/work") == 0 &&
      umount2("work/lower", MNT_DETACH) == 0)
    return "";
  return Failure(
      "a board needs overlay mounts in a user namespace (Linux 5.11 or later with the "
      "module overlay)");
}

}  // namespace

std::string BuildRoot(const Config &config) {
  const std::vector<std::string> directories = ApplianceDirectories(config.rootfs);
  if (!fs::exists(config.rootfs)) return "the appliance's files are missing: " + config.rootfs;
  std::string why = StartStaging();
  if (why.empty()) why = StageDirectories(directories);
  if (why.empty()) why = ProbeOverlay();
  if (why.empty()) ComposeDirectory("", 0);
  if (why.empty()) ComposeDirectory("/etc", 1);
  if (why.empty()) why = CopyAppliance(config.rootfs, directories);
  if (why.empty()) why = SetProductId(config.product_id);
  if (why.empty()) why = MakeLogs();
  if (why.empty()) why = BindProducts(config);
  if (why.empty()) why = MountProc();
  if (why.empty()) why = MakeDevices();
  if (why.empty()) why = MountStorage();
  return why.empty() ? EnterRoot() : why;
}

}  // namespace board
