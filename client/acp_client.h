// The client library of network-storage appliances, for programs that discover and manage them.
// Everything is in the namespace acp.
//
//   acp::Scope scope;  // all interfaces, 2 seconds
//   std::vector<acp::Appliance> found;
//   const acp::Outcome outcome = acp::Discover(scope, found);
//   if (!outcome.IsDone()) return fprintf(stderr, "%s\n", outcome.message.c_str());
//   for (const acp::Appliance &each : found)
//     printf("%s %s\n", acp::MacText(each.answer.mac).c_str(),
//            acp::AddressText(each.info.address).c_str());
//
// - Every call that uses the network takes a Scope and returns an Outcome: done, refused by the
//   appliance with a state, wrong arguments, no answer, or cancelled. Nothing throws but
//   std::bad_alloc, prints, or ends the program.
// - Requests without passwords are made (MakePingRequest, MakeRaidRequest, ...) and asked (Ask,
//   AskOne). What needs rights happens within a session: OpenSession, Authorize, and then
//   RunCommand, ChangeIdentity, AskSpecial; PrepareUpdate opens its own for RunUpdate.
// - A call blocks its thread until the answer, the timeout, or until Scope::cancel becomes
// readable:
//   an eventfd, or a pipe, that may end several calls. Progress comes by callback, in the calling
//   thread.
// - Calls may run in several threads at once, with the same appliance only one after the other.
//   RunFleet does so for many appliances.
// - The caller owns all that it passes and gets; records are plain values. Numbers are in host
//   order; of an IPv4 address the most significant byte is the first octet.
// - The library keeps no state between calls, and stores no password and no key.

#ifndef BH_CLIENT_ACP_CLIENT_H_
#define BH_CLIENT_ACP_CLIENT_H_

#include "client/appliances.h"     // discovery
#include "client/command.h"        // remote commands
#include "client/credentials.h"    // pass phrase and password
#include "client/drive.h"          // a drive's identification
#include "client/exchange.h"       // scopes, requests, answers
#include "client/fleet.h"          // many appliances at once
#include "client/format.h"         // texts of addresses and codes
#include "client/identity.h"       // address, names, clock
#include "client/password_hash.h"  // for a new password
#include "client/session.h"        // what carries passwords
#include "client/special.h"        // management requests
#include "client/update.h"         // firmware

#endif  // BH_CLIENT_ACP_CLIENT_H_
