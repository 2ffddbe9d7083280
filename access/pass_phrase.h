// The pass phrase that switches command mode on. The program does not hold it as a text.

#ifndef BH_ACCESS_PASS_PHRASE_H_
#define BH_ACCESS_PASS_PHRASE_H_

#include <cstdint>

// 0 when the text's first 8 characters are the pass phrase, else -1.
int32_t ComparePassPhrase(const char *text);

#endif  // BH_ACCESS_PASS_PHRASE_H_
