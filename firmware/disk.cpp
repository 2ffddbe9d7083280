// Disk installation: the image is an encrypted zip archive with a compressed tar archive in it,
// which becomes the system partition's content.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>

#include "daemon/process.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "firmware/image.h"
#include "firmware/install.h"
#include "firmware/zip_password.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr const char *ARCHIVE = "image.zip";
constexpr const char *SYSTEM = "tmpimage.tgz";

void RemoveOld(const char *directory, const char *name) {
  const std::string path = FormatText("%s/%s", directory, name);
  struct stat entry = {};
  if (lstat(path.c_str(), &entry) != 0) return;
  int32_t status = 0;
  exec1(FormatText("/bin/rm %s", path.c_str()).c_str(), 1, &status);
}

// Writes as much at a time as the file takes. False when it takes no more, though the stream's
// buffer may.
bool WriteImage(const Image &image, FILE *file) {
  uint32_t written_all = 0;
  size_t written = 0;
  while (written_all < image.size && ferror(file) == 0) {
    written = fwrite(image.segment.get() + written_all, 1, image.size - written_all, file);
    written_all += static_cast<uint32_t>(written);
    DebugPrint("write_firmInHdd() fwrite() writed_all=%08x total_size=%08x\n", written_all,
               image.size);
  }
  if (ferror(file) != 0) return false;
  DebugPrint("write_firmInHdd() fwrite success!!! writed_size=%08x\n",
             static_cast<unsigned>(written));
  return true;
}

// The received image as a file. Its segment, which takes as much memory, is gone then, whatever
// came of it: only a new upload could be installed.
bool StoreArchive(Image image, const std::string &path) {
  FilePtr file = CreateRegularFile(path.c_str());
  if (!file) return false;
  DebugPrint("write_firmInHdd() fopen(%s) success!!!\n", path.c_str());
  const bool written = WriteImage(image, file.get());
  image.segment.reset();
  RemoveSegment(FindImage());
  // What the stream still holds may find the disk full.
  const bool stored = WriteAndClose(std::move(file), "") == 0 && written;
  RunCommandLine("/bin/sync");
  return stored;
}

bool RunTraced(const std::string &command) {
  DebugPrint("%s\n", command.c_str());
  return RunCommandLine(command) == 0;
}

// A wrong password can go unnoticed until much of it is unpacked; what that leaves would keep the
// next password's result out.
bool Unzip(const char *directory, const char *password) {
  if (RunTraced(FormatText("/bin/unzip -P %s %s/%s -d %s > /dev/null 2>&1",
                           QuoteForShell(password).c_str(), directory, ARCHIVE, directory)))
    return true;
  unlink(FormatText("%s/%s", directory, SYSTEM).c_str());
  return false;
}

bool UnzipWithAnyPassword(const char *directory) {
  if (daemon_state.zip_pass[0] != '\0') return Unzip(directory, daemon_state.zip_pass);
  for (int32_t index = 0; index < ZIP_PASSWORDS; ++index) {
    if (Unzip(directory, GetZipPassword(index))) return true;
  }
  return false;
}

bool Unpack(const char *zip_part, const char *system_part) {
  if (!UnzipWithAnyPassword(zip_part)) {
    DebugPrint("write_firmInHdd() *** ZIP extract fail ***\n");
    return false;
  }
  if (!RunTraced(
          FormatText("/bin/tar xvzf %s/%s -C %s > /dev/null 2>&1", zip_part, SYSTEM, system_part)))
    return false;
  DebugPrint("write_firmInHdd() ALL OK!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\n");
  return true;
}

}  // namespace

int32_t write_firmInHdd(const char *zip_part, const char *system_part) {
  DebugPrint("write_firmInHdd() zip_part=%s system_part=%s\n", zip_part, system_part);
  RemoveOld(zip_part, ARCHIVE);
  RemoveOld(zip_part, SYSTEM);
  Image image = ReceivedImage();
  if (image.size == 0) {
    DebugPrint("write_firmInflash() total_size == 0.\n");
    return -1;
  }
  if (!StoreArchive(std::move(image), FormatText("%s/%s", zip_part, ARCHIVE))) return -1;
  const int32_t result = Unpack(zip_part, system_part) ? 0 : -1;
  DebugPrint("write_firmInHdd() return =%d\n", result);
  return result;
}
