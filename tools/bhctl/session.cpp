// The appliance issues one key a requester, so that another key takes another requester's address.

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

constexpr std::chrono::seconds DISCOVERY{2};  // at most; the request may take much longer
// About 1 key in 9 does not suit a password of four blocks, and only 1 in 8 suits one of 64; each
// password of a session counts.
constexpr int MAX_KEYS = 24;
// Keys that are issued in the same second are equal; a little more than one, for the other's clock.
constexpr std::chrono::milliseconds NEXT_SECOND{1100};

bool IsPassword(const Secret &password) {
  return password.text.size() <= password.capacity && password.text.find('\0') == std::string::npos;
}

bool CanSend(const std::vector<Secret> &passwords, uint32_t key) {
  return std::all_of(passwords.begin(), passwords.end(), [=](const Secret &password) {
    return EncodePassword(password, key).has_value();
  });
}

// A locally administered address that no other requester is likely to have.
Mac InventMac() {
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
    PrintError(std::to_string(answers.size()) + " appliances answer, choose one with --mac");
    return EXIT_USAGE;
  }
  const Answer &answer = answers.front();
  const DiscoverInfo info = ReadDiscoverInfo(answer.body);
  session = {answer.mac, answer.interface,           answer.src_mac, DiscoverKey(info),
             info,       options.src_mac.has_value()};
  if (answer.state == ACP_STATE_OK && session.key != 0) return EXIT_DONE;
  const std::string why = answer.state == ACP_STATE_OK ? "" : ": " + StateName(answer.state);
  PrintError(MacText(answer.mac) + " issues no key" + why);
  return EXIT_REFUSED;
}

}  // namespace

// The appliance decodes the first block, and each further one that begins before the first zero
// byte of the encoded text.
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
    if (keys == MAX_KEYS) {
      PrintError(MacText(session.mac) + " issues no key that the password can be sent under");
      return EXIT_REFUSED;
    }
    std::this_thread::sleep_for(NEXT_SECOND);
    Options again = SessionOptions(options, session);
    again.src_mac = InventMac();
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
