// "done" is printed only for what the appliance shows afterwards.

#include "tools/bhctl/set.h"

#include <charconv>
#include <nlohmann/json.hpp>

#include "client/identity.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/targets.h"
#include "tools/bhctl/terminal.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr int32_t MAX_OFFSET = 840;  // minutes; no zone is farther from UTC
constexpr int FIRST_YEAR = 2001;     // that the appliance accepts
constexpr std::chrono::seconds MAX_WAIT{600};
constexpr std::chrono::seconds BETWEEN_LOOKS{1};

constexpr const char *ADDRESS_WARNING =
    "The appliance will no longer be reachable at its present address";

int ReadAddress(const Options &options, const char *name, std::optional<uint32_t> &address) {
  const std::string *text = Given(options, name);
  if (text == nullptr) return EXIT_DONE;
  address = ParseAddress(*text);
  if (address) return EXIT_DONE;
  return UsageFailure(std::string(name) + " must be an IPv4 address, not '" + SafeText(*text) +
                      "'");
}

int ReadAddresses(const Options &options, IdentityChange &change) {
  std::optional<uint32_t> netmask;
  int status = ReadAddress(options, "--ip", change.address);
  if (status == EXIT_DONE) status = ReadAddress(options, "--netmask", netmask);
  if (status == EXIT_DONE) status = ReadAddress(options, "--gateway", change.gateway);
  if (status != EXIT_DONE) return status;
  if (change.address.has_value() != netmask.has_value())
    return UsageFailure("--ip and --netmask must be given together");
  change.netmask = netmask.value_or(0);
  return EXIT_DONE;
}

int ReadName(const Options &options, const char *option, std::string &name) {
  const std::string *text = Given(options, option);
  if (text == nullptr) return EXIT_DONE;
  name = *text;
  return name.empty() ? UsageFailure(std::string(option) + " must not be empty") : EXIT_DONE;
}

int ReadTime(const Options &options, IdentityChange &change) {
  const std::string *text = Given(options, "--time");
  if (text == nullptr) return EXIT_DONE;
  change.now = *text == "now";
  if (change.now) return EXIT_DONE;
  change.time = ParseDateTime(*text);
  if (change.time && change.time->year >= FIRST_YEAR) return EXIT_DONE;
  return UsageFailure("--time must be now or \"YYYY-MM-DD HH:MM:SS\" from " +
                      std::to_string(FIRST_YEAR) + " on, not '" + SafeText(*text) + "'");
}

int ReadTimezone(const Options &options, IdentityChange &change) {
  const std::string *text = Given(options, "--timezone");
  if (text == nullptr) return EXIT_DONE;
  int32_t minutes = 0;
  const char *end = text->data() + text->size();
  const auto [after, error] = std::from_chars(text->data(), end, minutes);
  change.timezone = minutes;
  if (error == std::errc() && after == end && minutes >= -MAX_OFFSET && minutes <= MAX_OFFSET)
    return EXIT_DONE;
  return UsageFailure("--timezone must be a number of minutes from -" + std::to_string(MAX_OFFSET) +
                      " to " + std::to_string(MAX_OFFSET) + ", not '" + SafeText(*text) + "'");
}

bool ChangesNothing(const IdentityChange &change) {
  return !ChangesAddress(change) && change.host_name.empty() && change.workgroup.empty() &&
         !change.time && !change.now && !change.gateway && !change.timezone && !change.initialized;
}

int ReadChange(const Options &options, IdentityChange &change) {
  change.dhcp = Given(options, "--dhcp") != nullptr;
  change.initialized = Given(options, "--initialized") != nullptr;
  int status = ReadAddresses(options, change);
  if (status == EXIT_DONE) status = ReadName(options, "--hostname", change.host_name);
  if (status == EXIT_DONE) status = ReadName(options, "--workgroup", change.workgroup);
  if (status == EXIT_DONE) status = ReadTime(options, change);
  if (status == EXIT_DONE) status = ReadTimezone(options, change);
  if (status != EXIT_DONE) return status;
  if (ChangesNothing(change)) return UsageFailure("nothing to change, see 'bhctl help set'");
  Outcome checked = CheckIdentity(change);
  return checked.IsDone() ? EXIT_DONE : UsageFailure(checked.message);
}

std::string QuestionText(const IdentityChange &change) {
  return change.dhcp ? "set --dhcp" : "set --ip " + AddressText(change.address.value_or(0));
}

int ShowMissing(const Options &options, const Target &target,
                const std::vector<NotTaken> &missing) {
  Json list = Json::array();
  for (const NotTaken &each : missing)
    list.push_back({{"setting", each.setting}, {"wanted", each.wanted}, {"found", each.found}});
  if (options.json)
    PrintJson({{"mac", MacText(target.GetMac())},
               {"state", StateName(ACP_STATE_OK)},
               {"not_taken", list}});
  for (const NotTaken &each : missing)
    PrintError("the appliance did not take the setting '" + each.setting + "': wanted " +
               SafeText(each.wanted) + ", found " +
               SafeText(each.found.empty() ? "none" : each.found));
  return EXIT_REFUSED;
}

bool AwaitsLease(const IdentityChange &change, const DiscoverInfo &found) {
  return change.dhcp && (found.status & DISCOVER_DHCP_LEASE) == 0;
}

int ShowDone(const Options &options, const Target &target, const IdentityChange &change,
             const DiscoverInfo &found) {
  const std::string address = AddressText(found.address);
  if (options.json) {
    Json object = {{"mac", MacText(target.GetMac())}, {"state", StateName(ACP_STATE_OK)}};
    if (ChangesAddress(change)) object["address"] = address;
    PrintJson(object);
  } else if (AwaitsLease(change, found)) {
    PrintLine("done; the appliance has no lease yet, see 'bhctl discover'");
  } else {
    PrintLine(ChangesAddress(change) ? "done; the appliance is at " + address : "done");
  }
  return EXIT_DONE;
}

// Looks once, or with --wait until the appliance shows all that was set.
Outcome Verify(const Options &options, const Session &session, const IdentityChange &change,
               std::vector<NotTaken> &missing, DiscoverInfo &found) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end =
      Clock::now() + (Given(options, "--wait") == nullptr ? std::chrono::seconds(0) : MAX_WAIT);
  for (;;) {
    Outcome outcome = VerifyIdentity(options.scope, session, change, missing, found);
    const bool settled = outcome.IsDone() && missing.empty() && !AwaitsLease(change, found);
    if (settled || outcome.result == acp::Result::CANCELLED || Clock::now() >= end) return outcome;
    Pause(options.scope.cancel, BETWEEN_LOOKS);
  }
}

// A change whose answer is lost may have been made all the same: what the appliance shows counts.
int Apply(const Options &options, const Target &target, const Session &session,
          const IdentityChange &change) {
  Outcome outcome = ChangeIdentity(options.scope, session, change);
  const bool unknown = outcome.result == acp::Result::NO_ANSWER;
  if (!outcome.IsDone() && !unknown) return Report(options, target.GetMac(), outcome);
  std::vector<NotTaken> missing;
  DiscoverInfo found = {};
  Outcome verified = Verify(options, session, change, missing, found);
  if (!verified.IsDone() && !unknown) {
    verified.message = "the appliance accepted the change, but does not answer since";
    verified.hint = "its new address or network may be unusable; look for it with 'bhctl discover'";
  }
  if (!verified.IsDone()) return Report(options, target.GetMac(), unknown ? outcome : verified);
  if (!missing.empty()) return ShowMissing(options, target, missing);
  return ShowDone(options, target, change, found);
}

int SetOn(const Options &options, const Target &target, const IdentityChange &change,
          const Credentials &credentials) {
  Session session;
  Outcome outcome = OpenSession(options.scope, *target.discovered, SecretsOf(credentials), session);
  if (outcome.IsDone())
    outcome = Authorize(SessionScope(options.scope, session), session, credentials);
  if (!outcome.IsDone()) return Report(options, target.GetMac(), outcome);
  return Apply(options, target, session, change);
}

}  // namespace

int Set(const Options &options) {
  IdentityChange change;
  Credentials credentials;
  int status = ReadChange(options, change);
  if (status == EXIT_DONE && ChangesAddress(change))
    status = CheckConfirmable(options, QuestionText(change));
  if (status == EXIT_DONE) status = ReadCredentials(options, credentials);
  std::vector<Target> targets;
  if (status == EXIT_DONE) status = ChooseTargets(options, targets);
  if (status == EXIT_DONE && targets.size() > 1 && (change.address || !change.host_name.empty()))
    status = UsageFailure("an address or a host name can be given to one appliance only");
  if (status == EXIT_DONE && ChangesAddress(change))
    status = Confirm(options, targets, QuestionText(change), ADDRESS_WARNING);
  if (status != EXIT_DONE) return status;
  return RunOnTargets(options, targets, [&](const Options &chosen, const Target &target) {
    return SetOn(chosen, target, change, credentials);
  });
}

}  // namespace bhctl
