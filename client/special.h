// The management requests: a code of AcpSpecial, an argument and a text.

#ifndef BH_CLIENT_SPECIAL_H_
#define BH_CLIENT_SPECIAL_H_

#include <chrono>
#include <cstdint>

#include "client/session.h"

namespace acp {

// The body: code, `extra`, `text`, NUL. Repeatable where that does no harm.
Request MakeSpecialRequest(uint8_t code, uint32_t extra, Bytes text);

// Sends the request within a session. Stores the reply's result: AcpState, or a value specific to
// the command. Done if there is a reply, whatever it says.
Outcome AskSpecial(const Scope &scope, const Session &session, const Request &request,
                   uint32_t &result);

// Changes the administrator's password. Both are encoded: `hash`, at most 16 bytes, with the key,
// as the account database stores it.
Request MakePasswordChangeRequest(Bytes hash, Bytes old_password);

// The results of SPECIAL_CHECK_LOCK, SPECIAL_LOCK and SPECIAL_FILE_CHECKSUM.
constexpr uint32_t LOCK_HELD = 0;
constexpr uint32_t LOCK_NOT_HELD = 1;
constexpr uint32_t LOCK_NOT_READY = 0xFFFFFFFE;
constexpr uint32_t LOCK_HELD_BY_ANOTHER = 0xFFFFFFFD;
constexpr uint32_t NO_CHECKSUM = 0xFFFF;

}  // namespace acp

#endif  // BH_CLIENT_SPECIAL_H_
