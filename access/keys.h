// The keys under which clients encode passwords. Discovery hands out one for each client's MAC; it
// is valid for 1800 seconds.
//
// MACs are 6 bytes, in the order in which they go over the wire.

#ifndef BH_ACCESS_KEYS_H_
#define BH_ACCESS_KEYS_H_

#include <cstdint>

// One of the list that begins at daemon_state.key_list, the newest first.
struct KeyEntry {
  KeyEntry *next;
  uint32_t key;  // 1 to 0x7FFFFFFF
  uint8_t mac[6];
  uint32_t created;  // seconds since the epoch
};

// The client's key, a new one if it has none; 0 without memory.
uint32_t IssueKey(const uint8_t *mac);

// The client's key, or 0 when it has none (any more).
uint32_t GetKey(const uint8_t *mac);

// Removes the keys that are 1800 seconds old or older at `now`, or that seem to be: a clock that
// was set back ends them all.
void CleanKey(uint32_t now);

// The entry of `mac` whatever its age, or null. It is the list's.
KeyEntry *FindKey(const uint8_t *mac);

#endif  // BH_ACCESS_KEYS_H_
