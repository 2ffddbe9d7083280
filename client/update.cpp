// The appliance handles one update at a time, and nothing else while it installs.

#include "client/update.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <vector>

#include "client/format.h"
#include "client/hints.h"
#include "client/special.h"

namespace acp {
namespace {

constexpr std::chrono::seconds STALL_TIMEOUT{30};    // at most, for an upload
constexpr std::chrono::seconds GIVE_UP_TIMEOUT{15};  // stopping a receiver takes up to 11 s

constexpr uint32_t VERIFYING_PRODUCTS[] = {0x2001, 0x2002};

constexpr Hint REQUEST_HINTS[] = {
    {ACP_STATE_NO_KEY, KEY_EXPIRED},
    {ACP_STATE_PASSWORD_ERROR, "the administrator's password is wrong"},
    {ACP_STATE_NOW_LOCKING, "another program is changing the settings; try again later"},
    {ACP_STATE_BAD_FIRM_TYPE, "the appliance does not support this --type"},
    {ACP_STATE_NO_SPACE, "the array is not mounted or has less than 200 MB free"},
    {ACP_STATE_BAD_PRODUCT, "the image is for another product"},
    {ACP_STATE_FAILURE,
     "unknown --type, wrong product, out of memory, or partitions that cannot be mounted"},
};
constexpr Hint END_HINTS[] = {
    {ACP_STATE_FAILURE, "the image is incomplete or its checksum is wrong; nothing was installed"}};
constexpr Hint FINISH_HINTS[] = {
    {ACP_STATE_FAILURE,
     "the image could not be written, is not what its --type says, does not fit, or the archive's "
     "password is wrong; the system may be incomplete: do not restart the appliance, repeat the "
     "upgrade with a good image"}};
constexpr const char *UNKNOWN_HINT =
    "the installation may continue anyway: do not switch the appliance off, and look at its "
    "version with 'bhctl discover' later";

Outcome AtStep(Outcome outcome, const char *step) {
  if (!outcome.IsDone()) outcome.step = step;
  return outcome;
}

Outcome Fail(const char *step, Result result, const std::string &message,
             const std::string &hint = "") {
  return AtStep(Failure(result, message, hint), step);
}

Outcome Refused(const char *step, uint32_t state, const std::string &hint) {
  return AtStep(Refusal(state, hint), step);
}

// The appliance is told, even when the user has interrupted.
Outcome GiveUp(const UpdateJob &job, Outcome why) {
  Scope scope = job.scope;
  scope.cancel = -1;
  scope.timeout = std::min<std::chrono::microseconds>(scope.timeout, GIVE_UP_TIMEOUT);
  Exchange exchange;
  const bool told = Begin(scope, MakeUpdateEndRequest(false), exchange).IsDone() &&
                    Await(exchange, scope.timeout).has_value();
  if (!told && scope.warn) scope.warn("the appliance may still be waiting for the image");
  return why;
}

// A receiver that an earlier client left would get the image, or keep the new one from listening.
// To end it releases the daemon's own lock, too, so a lock that is held stays: the request is
// refused then.
void EndEarlierUpload(const UpdateJob &job) {
  uint32_t lock = LOCK_HELD;
  AskSpecial(job.scope, job.session, MakeSpecialRequest(SPECIAL_CHECK_LOCK, 0, {}), lock);
  if (lock != LOCK_NOT_HELD) return;
  GiveUp(job, {});
}

Outcome AskForUpdate(const UpdateJob &job) {
  Exchange exchange;
  const Request request = MakeUpdateRequest(job.update, job.session.key);
  Outcome begun = Begin(job.scope, request, exchange);
  if (!begun.IsDone()) return AtStep(begun, STEP_REQUEST);
  const std::optional<Answer> answer = Await(exchange, job.scope.timeout);
  if (!answer && IsCancelled(job.scope.cancel))
    return GiveUp(job, AtStep(Cancelled(), STEP_REQUEST));
  if (!answer)
    return GiveUp(job, Fail(STEP_REQUEST, Result::NO_ANSWER, "no answer", "nothing was installed"));
  if (answer->state == ACP_STATE_OK) return {};
  const bool unverified =
      answer->state == ACP_STATE_PASSWORD_ERROR && VerifiesPassword(job.session.info.product_id);
  return Refused(STEP_REQUEST, answer->state,
                 unverified ? NotVerifiedHint(job.session) : HintFor(REQUEST_HINTS, answer->state));
}

Outcome SendImage(const UpdateJob &job, const UpdateProgress &progress) {
  const Receiver receiver = {job.session.info.address, job.session.interface,
                             std::min<std::chrono::microseconds>(job.scope.timeout, STALL_TIMEOUT),
                             job.scope.cancel};
  Outcome outcome = Upload(*job.image, receiver, progress.upload);
  if (!outcome.IsDone()) return GiveUp(job, AtStep(outcome, STEP_UPLOAD));
  if (IsCancelled(job.scope.cancel)) return GiveUp(job, AtStep(Cancelled(), STEP_UPLOAD));
  return {};
}

// If the first reply is lost, the second one is enough.
Outcome Install(const UpdateJob &job, const UpdateProgress &progress) {
  Exchange exchange;
  Outcome begun = Begin(job.scope, MakeUpdateEndRequest(true), exchange);
  if (!begun.IsDone()) return GiveUp(job, AtStep(begun, STEP_END));
  std::optional<Answer> answer = Await(exchange, job.scope.timeout);
  if (!answer && IsCancelled(job.scope.cancel)) return AtStep(Cancelled(), STEP_END);
  if (!answer) return Fail(STEP_END, Result::NO_ANSWER, "no answer", UNKNOWN_HINT);
  if (answer->command == ACP_FIRMUP_END_REPLY) {
    if (answer->state != ACP_STATE_OK)
      return Refused(STEP_END, answer->state, HintFor(END_HINTS, answer->state));
    if (progress.installing) progress.installing();
    answer = Await(exchange, job.scope.timeout);
  }
  if (!answer && IsCancelled(job.scope.cancel))
    return Fail(STEP_FINISH, Result::CANCELLED, "interrupted", UNKNOWN_HINT);
  if (!answer) return Fail(STEP_FINISH, Result::NO_ANSWER, "no answer", UNKNOWN_HINT);
  if (answer->state == ACP_STATE_OK) return {};
  return Refused(STEP_FINISH, answer->state, HintFor(FINISH_HINTS, answer->state));
}

// A long password overlaps a number of the record, which SwapAcpHeader converts to little endian.
// So its four bytes are stored as the number that converts back to them.
void KeepWireBytes(std::vector<uint8_t> &body, size_t at) {
  uint32_t number = 0;
  for (size_t i = sizeof(number); i-- > 0;)
    number = number << 8 | body[at + i];
  memcpy(body.data() + at, &number, sizeof(number));
}

// Only a password that travels in the request before the archive's must fit its field.
Secret UpdatePassword(const UpdatePlan &plan, bool verifies) {
  if (verifies) return AdminPassword("");
  Secret password = AdminPassword("");
  if (plan.credentials.password) password = *plan.credentials.password;
  if (!plan.zip_password) return password;
  password.capacity = PASSWORD_BEFORE_ZIP;
  password.name = "with --zip-password, the administrator's password";
  return password;
}

Outcome CheckAppliance(const UpdateJob &job) {
  const DiscoverInfo &info = job.session.info;
  if (job.update.product != info.product_id)
    return Fail(STEP_KEY, Result::REFUSED,
                "the image is for product " + HexText(job.update.product) +
                    ", but the appliance is product " + HexText(info.product_id));
  if (info.address == 0)
    return Fail(STEP_KEY, Result::NO_ANSWER,
                "the appliance has no IPv4 address to send the image to",
                "give it one with 'bhctl set --ip'");
  return {};
}

// Products that read the password from the request verify one only for a client in command mode.
Outcome TryPassword(const UpdateJob &job) {
  Credentials credentials = job.credentials;
  const bool verifies = VerifiesPassword(job.session.info.product_id);
  Outcome outcome = Authorize(job.scope, job.session, credentials);
  if (verifies || outcome.state != ACP_STATE_NOT_PERMIT) return AtStep(outcome, STEP_REQUEST);
  if (job.scope.warn)
    job.scope.warn("the password was not tried: that needs the command mode (--pass-phrase)");
  return {};
}

}  // namespace

bool VerifiesPassword(uint32_t product) {
  return std::find(std::begin(VERIFYING_PRODUCTS), std::end(VERIFYING_PRODUCTS), product) !=
         std::end(VERIFYING_PRODUCTS);
}

Request MakeUpdateRequest(const Update &update, uint32_t key) {
  UpdateRequest record = {};
  record.firm_type = update.type;
  record.firm_pid = update.product;
  record.firm_size = update.size;
  record.true_chksum = update.checksum;
  const std::vector<uint8_t> password = EncodePassword(update.password, key).value();
  if (update.zip_password) {
    std::copy(password.begin(), password.end(), record.password);
    record.zip_pass_len = static_cast<uint32_t>(update.zip_password->text.size());
    Request request = {ACP_FIRMUP3, ACP_FIRMUP2_REPLY, 0, BodyOf(record)};
    Append(request.body, EncodePassword(*update.zip_password, key).value());
    request.body.push_back(0);
    return request;
  }
  Request request = {ACP_FIRMUP2, ACP_FIRMUP2_REPLY, 0, BodyOf(record)};
  request.body.resize(offsetof(UpdateRequest, password));
  Append(request.body, password);
  request.body.push_back(0);
  request.body.resize(std::max(request.body.size(), sizeof(UpdateRequest)));
  KeepWireBytes(request.body, offsetof(UpdateRequest, zip_pass_len));
  return request;
}

Request MakeUpdateEndRequest(bool uploaded) {
  Request request = {ACP_FIRMUP_END, ACP_FIRMUP_END_REPLY, 0, {}};
  request.second_reply = ACP_FIRMUP_FINISH_REPLY;
  request.result = uploaded ? 0 : 1;
  return request;
}

Outcome PrepareUpdate(const Scope &scope, const Answer &discovered, const UpdatePlan &plan,
                      UpdateJob &job) {
  const uint32_t product = ReadDiscoverInfo(discovered.body).product_id;
  job.image = plan.image;
  job.credentials = plan.credentials;
  job.update = {plan.type,
                plan.product.value_or(product),
                plan.image->size,
                plan.image->checksum,
                UpdatePassword(plan, VerifiesPassword(product)),
                {}};
  if (plan.zip_password)
    job.update.zip_password = Secret{*plan.zip_password, MAX_ZIP_PASSWORD, "--zip-password"};
  std::vector<Secret> secrets = SecretsOf(plan.credentials);
  secrets.push_back(job.update.password);
  if (job.update.zip_password) secrets.push_back(*job.update.zip_password);
  Outcome outcome = OpenSession(scope, discovered, secrets, job.session);
  if (!outcome.IsDone()) return AtStep(outcome, STEP_KEY);
  job.scope = SessionScope(scope, job.session);
  return CheckAppliance(job);
}

Outcome TryUpdate(const UpdateJob &job) {
  Outcome reached = TryReach(
      {job.session.info.address, job.session.interface, job.scope.timeout, job.scope.cancel});
  return reached.IsDone() ? TryPassword(job) : AtStep(reached, STEP_UPLOAD);
}

Outcome RunUpdate(const UpdateJob &job, const UpdateProgress &progress) {
  Outcome outcome;
  if (VerifiesPassword(job.session.info.product_id))
    outcome = AtStep(Authorize(job.scope, job.session, job.credentials), STEP_REQUEST);
  if (!outcome.IsDone()) return outcome;
  EndEarlierUpload(job);
  outcome = AskForUpdate(job);
  if (outcome.IsDone()) outcome = SendImage(job, progress);
  return outcome.IsDone() ? Install(job, progress) : outcome;
}

}  // namespace acp
