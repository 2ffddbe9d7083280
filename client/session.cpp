// The appliance issues one key per requester. To get another key, bhctl asks from a made-up MAC
// address.

#include "client/session.h"

#include <algorithm>
#include <chrono>
#include <random>

#include "access/cipher.h"
#include "client/format.h"

namespace acp {
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

Outcome ReadSession(const Scope &scope, const Answer &answer, Session &session) {
  const DiscoverInfo info = ReadDiscoverInfo(answer.body);
  session = {answer.mac, answer.interface,         answer.src_mac, DiscoverKey(info),
             info,       scope.src_mac.has_value()};
  if (answer.state != ACP_STATE_OK) return Refusal(answer.state, "it issued no key");
  if (session.key != 0) return {};
  return {Result::REFUSED, "issued no key", "", ACP_STATE_OK, ""};
}

Outcome DiscoverOne(Scope scope, Session &session) {
  scope.timeout = std::min<std::chrono::microseconds>(scope.timeout, DISCOVERY);
  Answer answer;
  Outcome outcome = AskOne(scope, MakeDiscoverRequest(), answer);
  return outcome.IsDone() ? ReadSession(scope, answer, session) : outcome;
}

Outcome CheckSecrets(const std::vector<Secret> &secrets) {
  for (const Secret &secret : secrets) {
    if (IsPassword(secret)) continue;
    return Failure(Result::INVALID, std::string(secret.name) + " can have at most " +
                                        std::to_string(secret.capacity) + " bytes and no NUL");
  }
  return {};
}

// Draws keys until all secrets can be sent.
Outcome FindKey(const Scope &scope, const std::vector<Secret> &secrets, Session &session) {
  Outcome outcome;
  for (int keys = 1; outcome.IsDone() && !CanSend(secrets, session.key); ++keys) {
    if (keys == MAX_KEY_REQUESTS)
      return {Result::REFUSED, "issues no key that can encode the password", "", ACP_STATE_OK, ""};
    Pause(scope.cancel, KEY_INTERVAL);
    if (IsCancelled(scope.cancel)) return Cancelled();
    Scope again = SessionScope(scope, session);
    again.src_mac = MakeUpMac();
    outcome = DiscoverOne(again, session);
  }
  return outcome;
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

Outcome OpenSession(const Scope &scope, const std::vector<Secret> &secrets, Session &session) {
  Outcome outcome = CheckSecrets(secrets);
  if (outcome.IsDone()) outcome = DiscoverOne(scope, session);
  return outcome.IsDone() ? FindKey(scope, secrets, session) : outcome;
}

Outcome OpenSession(const Scope &scope, const Answer &discovered,
                    const std::vector<Secret> &secrets, Session &session) {
  Outcome outcome = CheckSecrets(secrets);
  if (outcome.IsDone()) outcome = ReadSession(scope, discovered, session);
  return outcome.IsDone() ? FindKey(scope, secrets, session) : outcome;
}

Scope SessionScope(const Scope &scope, const Session &session) {
  Scope narrowed = scope;
  narrowed.interface = session.interface;
  narrowed.mac = session.mac;
  narrowed.src_mac = session.src_mac;
  return narrowed;
}

}  // namespace acp
