// Reading and writing of /etc/hosts.

#include "lib/hosts.h"

#include "lib/address.h"
#include "lib/text.h"

namespace {

constexpr const char *HOSTS_FILE = "/etc/hosts";
constexpr size_t MAX_HOSTS_CHUNK = 254;

}  // namespace

int ReadOtherHosts(std::string_view name, std::string &kept) {
  kept.clear();
  std::string content;
  const int error = ReadTextFile(HOSTS_FILE, content);
  if (error != 0) return error;
  std::string_view rest = content;
  while (!rest.empty()) {
    const std::string_view piece = NextChunk(rest, MAX_HOSTS_CHUNK);
    if (name.empty() || !Contains(piece, name)) kept.append(piece);
  }
  return 0;
}

int WriteHosts(std::string kept, in_addr address, std::string_view name) {
  if (!kept.empty() && kept.back() != '\n') kept.push_back('\n');
  kept.append(Dotted(address)).append(" ").append(name).append("\n");
  return WriteTextFile(HOSTS_FILE, kept);
}
