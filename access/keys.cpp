// The list of client keys. Every look-up drops what has expired first.

#include "access/keys.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "daemon/state.h"
#include "daemon/trace.h"

namespace {

constexpr uint32_t KEY_LIFETIME = 1800;  // seconds

uint32_t Now() {
  return static_cast<uint32_t>(time(nullptr));
}

// Clients that ask within the same second get the same key.
uint32_t DrawKey(uint32_t now) {
  srandom(now);
  long key = 0;
  while (key == 0)
    key = random();
  return static_cast<uint32_t>(key);
}

}  // namespace

uint32_t IssueKey(const uint8_t *mac) {
  const uint32_t now = Now();
  CleanKey(now);
  if (const KeyEntry *known = FindKey(mac)) return known->key;

  auto *entry = static_cast<KeyEntry *>(calloc(1, sizeof(KeyEntry)));
  if (entry == nullptr) return 0;
  entry->next = daemon_state.key_list;
  entry->key = DrawKey(now);
  memcpy(entry->mac, mac, sizeof(entry->mac));
  entry->created = now;
  daemon_state.key_list = entry;
  return entry->key;
}

uint32_t GetKey(const uint8_t *mac) {
  CleanKey(Now());
  const KeyEntry *entry = FindKey(mac);
  return entry == nullptr ? 0 : entry->key;
}

void CleanKey(uint32_t now) {
  KeyEntry **link = &daemon_state.key_list;
  while (KeyEntry *entry = *link) {
    const uint32_t age = now - entry->created;  // right across the counter's wrap, too
    if (age < KEY_LIFETIME) {
      link = &entry->next;
      continue;
    }
    const uint8_t *mac = entry->mac;
    DebugPrint("CleanKey %02x:%02x:%02x-%02x:%02x:%02x\n", mac[0], mac[1], mac[2], mac[3], mac[4],
               mac[5]);
    *link = entry->next;
    free(entry);
  }
}

KeyEntry *FindKey(const uint8_t *mac) {
  KeyEntry *entry = daemon_state.key_list;
  while (entry != nullptr && memcmp(entry->mac, mac, sizeof(entry->mac)) != 0)
    entry = entry->next;
  return entry;
}
