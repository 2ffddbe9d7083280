// The appliance issues one key per requester. To get another key, bhctl asks from a made-up MAC
// address.

#include "tools/bhctl/session.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "access/cipher.h"
#include "tools/bhctl/client.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr std::chrono::seconds DISCOVERY{2};  // at most; the request itself may take much longer
// About 8 of 9 keys can encode a password of four blocks, but only 1 of 8 keys one of 64 blocks.
// One key must suit all passwords of a session.
constexpr int MAX_KEY_REQUESTS = 24;
// Keys issued in the same second are equal. A little longer, for the appliance's clock.
constexpr std::chrono::milliseconds KEY_INTERVAL{1100};

bool IsPassword(const Secret &password) {
  return password.text.size() <= password.capacity && password.text.find('\0') == std::string::npos;
}

bool CanSend(const std::vector<Secret> &passwords, uint32_t key) {
  return std::all_of(passwords.begin(), passwords.end(), [=](const Secret &password) {
    return EncodePassword(password, key).has_value();
  });
}

// A random locally administered address.
Mac MakeUpMac() {
  std::random_device random;
  std::uniform_int_distribution<unsigned int> byte(0, 0xFF);
  Mac mac = {0x02};
  for (size_t i = 1; i < mac.size(); ++i)
    mac[i] = static_cast<uint8_t>(byte(random));
  return mac;
}

int DiscoverOne(Options options, Session &session) {
  options.timeout = std::min<std::chrono::microseconds>(options.timeout, DISCOVERY);
  std::vector<Answer> answers;
  const int status = Ask(options, MakeDiscoverRequest(), answers);
  if (status != EXIT_DONE) return status;
  if (answers.size() > 1) {
    PrintError(std::to_string(answers.size()) + " appliances answer; choose one with --mac");
    return EXIT_USAGE;
  }
  const Answer &answer = answers.front();
  const DiscoverInfo info = ReadDiscoverInfo(answer.body);
  session = {answer.mac, answer.interface,           answer.src_mac, DiscoverKey(info),
             info,       options.src_mac.has_value()};
  if (answer.state == ACP_STATE_OK && session.key != 0) return EXIT_DONE;
  const std::string why = answer.state == ACP_STATE_OK ? "" : ": " + StateName(answer.state);
  PrintError(MacText(answer.mac) + " issued no key" + why);
  return EXIT_REFUSED;
}

}  // namespace

// The appliance always decodes the first block, but a further one only if it begins before the
// first zero byte of the encoded text. Decoding here shows whether it gets the whole password.
std::optional<std::vector<uint8_t>> EncodePassword(const Secret &password, uint32_t key) {
  if (!IsPassword(password)) return std::nullopt;
  const size_t blocks = (password.text.size() + CIPHER_BLOCK - 1) / CIPHER_BLOCK;
  std::vector<uint8_t> clear(std::max<size_t>(blocks, 1) * CIPHER_BLOCK);
  std::copy(password.text.begin(), password.text.end(), clear.begin());
  std::vector<uint8_t> encoded(clear.size());
  for (size_t at = 0; at < clear.size(); at += CIPHER_BLOCK)
    EncryptBlock(encoded.data() + at, clear.data() + at, key);
  if (DecodePassword(encoded, key, password.capacity + 1) != password.text) return std::nullopt;
  return encoded;
}

int OpenSession(const Options &options, const std::vector<Secret> &passwords, Session &session) {
  for (const Secret &password : passwords) {
    if (IsPassword(password)) continue;
    PrintError(std::string(password.name) + " can have at most " +
               std::to_string(password.capacity) + " bytes and no NUL");
    return EXIT_USAGE;
  }
  int status = DiscoverOne(options, session);
  for (int keys = 1; status == EXIT_DONE && !CanSend(passwords, session.key); ++keys) {
    if (keys == MAX_KEY_REQUESTS) {
      PrintError(MacText(session.mac) + " issues no key that can encode the password");
      return EXIT_REFUSED;
    }
    std::this_thread::sleep_for(KEY_INTERVAL);
    Options again = SessionOptions(options, session);
    again.src_mac = MakeUpMac();
    status = DiscoverOne(again, session);
  }
  return status;
}

Options SessionOptions(const Options &options, const Session &session) {
  Options narrowed = options;
  narrowed.interface = session.interface;
  narrowed.mac = session.mac;
  narrowed.src_mac = session.src_mac;
  return narrowed;
}

}  // namespace bhctl
