// The appliance as a whole: which system boots next, its language, its removable drives. What is
// left of it, restart, configuration and checksums, is the library's.

#ifndef BH_HANDLERS_MAINTENANCE_H_
#define BH_HANDLERS_MAINTENANCE_H_

#include <cstdint>

// Selects the system that the next boot starts: the emergency system, or with 0 the disk system.
// Returns 0, also when the disk system cannot be reached or has no marker to remove; -1 when its
// marker cannot be created (an array mounted for that stays mounted).
int32_t SetEmergenceMode(int32_t on);

// Returns 0 when both values are written or their keys absent, else -1.
int32_t chage_language(const char *lang, const char *codepage);

// Empties the four removable-drive entries of the disk information file. Returns 0.
int32_t clear_usb_info();

#endif  // BH_HANDLERS_MAINTENANCE_H_
