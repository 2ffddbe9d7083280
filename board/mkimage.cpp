// mkimage: makes a disk-installation image of what is in a directory: a gzip-compressed tar archive
// named tmpimage.tgz, root's files all of them, in an encrypted zip archive. With no password given
// it is one that the daemon knows by itself.

#include <getopt.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "firmware/zip_password.h"

namespace {

namespace fs = std::filesystem;

constexpr int FAILED = 1;
constexpr int USAGE = 2;

struct Options {
  std::string password;
  fs::path directory;
  fs::path image;
};

constexpr struct option OPTIONS[] = {
    {"password-number", required_argument, nullptr, 'n'},
    {"password", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

int Fail(const std::string &what, int status) {
  fprintf(stderr, "mkimage: %s\n", what.c_str());
  return status;
}

int FailUsage(const std::string &what) {
  Fail(what, USAGE);
  fputs("usage: mkimage [--password-number N | --password TEXT] DIRECTORY IMAGE\n", stderr);
  return USAGE;
}

std::optional<std::string> BuiltInPassword(const std::string &number) {
  if (number.size() != 1 || number[0] < '0' || number[0] >= '0' + ZIP_PASSWORDS)
    return std::nullopt;
  return GetZipPassword(number[0] - '0');
}

// Returns 0 or the exit status.
int ReadOptions(int argc, char **argv, Options &options) {
  std::optional<std::string> password;
  int option = 0;
  opterr = 0;
  while ((option = getopt_long(argc, argv, "", OPTIONS, nullptr)) != -1) {
    if (option == '?') return FailUsage("unknown option, or one without its value");
    if (password) return FailUsage("one password will do");
    password = option == 'n' ? BuiltInPassword(optarg) : optarg;
    if (!password)
      return FailUsage("--password-number must be 0 to " + std::to_string(ZIP_PASSWORDS - 1));
    if (password->empty()) return FailUsage("the password must not be empty");
  }
  if (argc - optind != 2) return FailUsage("a directory and an image are needed");
  options = {password.value_or(GetZipPassword(0)), argv[optind], argv[optind + 1]};
  return 0;
}

// Runs a program of the PATH to its end; whether it did its work.
bool Run(std::vector<std::string> words) {
  std::vector<char *> argv;
  argv.reserve(words.size() + 1);
  for (std::string &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t process = -1;
  const int error = posix_spawnp(&process, argv[0], nullptr, nullptr, argv.data(), environ);
  int status = 0;
  while (error == 0 && waitpid(process, &status, 0) < 0)
    if (errno != EINTR) return false;
  if (error == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  Fail(words[0] + (error != 0 ? ": " + std::generic_category().message(error) : " has failed"), 0);
  return false;
}

// By its entries, so that the unpacked archive leaves the directory's own mode alone. The owners
// are root: those of this machine mean nothing on an appliance.
bool PackDirectory(const fs::path &directory, const fs::path &archive) {
  std::vector<std::string> words = {"tar",       "czf", archive.string(),  "--owner=0",
                                    "--group=0", "-C",  directory.string()};
  const size_t options = words.size();
  for (const fs::directory_entry &entry : fs::directory_iterator(directory))
    words.push_back("./" + entry.path().filename().string());
  if (words.size() > options) return Run(words);
  Fail(directory.string() + " is empty", 0);
  return false;
}

int MakeImage(const Options &options, const fs::path &place) {
  const fs::path archive = place / "tmpimage.tgz";
  const fs::path image = place / "image.zip";
  if (!PackDirectory(options.directory, archive)) return FAILED;
  // -0: the archive is compressed already; -j: without the path that it has here.
  if (!Run({"zip", "-q", "-0", "-j", "-P", options.password, image.string(), archive.string()}))
    return FAILED;
  fs::copy_file(image, options.image, fs::copy_options::overwrite_existing);
  return 0;
}

int MakeImageElsewhere(const Options &options) {
  constexpr size_t OPEN_PLACES = 6;  // that mkdtemp fills
  std::string place =
      (fs::temp_directory_path() / "mkimage.").string() + std::string(OPEN_PLACES, 'X');
  if (mkdtemp(place.data()) == nullptr)
    return Fail("cannot make " + place + ": " + std::generic_category().message(errno), FAILED);
  int status = FAILED;
  try {
    status = MakeImage(options, place);
  } catch (const fs::filesystem_error &error) {
    Fail(error.what(), FAILED);
  }
  std::error_code ignored;
  fs::remove_all(place, ignored);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  const int status = ReadOptions(argc, argv, options);
  if (status != 0) return status;
  std::error_code ignored;
  if (!fs::is_directory(options.directory, ignored))
    return FailUsage(options.directory.string() + " is no directory");
  return MakeImageElsewhere(options);
}
