// An update has five steps: key, request, upload, end of the upload, end of the installation. After
// the request, a receiver on the appliance waits for the upload and blocks the port for others. So
// bhctl tells the appliance when it gives up.

#include "tools/bhctl/upgrade.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/bhctl/client.h"
#include "tools/bhctl/credentials.h"
#include "tools/bhctl/image.h"
#include "tools/bhctl/interrupt.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/refusal.h"
#include "tools/bhctl/text.h"
#include "tools/bhctl/upload.h"

namespace bhctl {
namespace {

constexpr std::chrono::seconds STALL_TIMEOUT{30};    // at most, for an upload
constexpr std::chrono::seconds GIVE_UP_TIMEOUT{15};  // stopping a receiver takes up to 11 s

// These products need a verified password. They ignore the one in the request.
constexpr uint32_t VERIFYING_PRODUCTS[] = {0x2001, 0x2002};

constexpr const char *FINISH = "finish";

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
    {ACP_STATE_FAILURE, "the image is incomplete or its checksum is wrong"}};
constexpr Hint FINISH_HINTS[] = {{ACP_STATE_FAILURE, "the installation failed"}};

// A running update.
struct Job {
  Options options;  // of the session
  Session session;
  Image image;
  Update update;
  Credentials credentials;  // for VERIFYING_PRODUCTS
  Descriptor interrupt;
};

bool MustVerifyPassword(const Job &job) {
  return std::count(std::begin(VERIFYING_PRODUCTS), std::end(VERIFYING_PRODUCTS),
                    job.session.info.product_id) != 0;
}

int Fail(const char *step, const std::string &why, int status) {
  PrintError("upgrade failed at the step " + std::string(step) + ": " + why);
  return status;
}

Json Report(const Job &job, uint32_t state, const char *step) {
  return {{"mac", MacText(job.session.mac)},
          {"state", StateName(state)},
          {"step", step},
          {"product_id", job.update.product},
          {"type", job.update.type},
          {"size", job.image.size},
          {"checksum", WordText(job.image.checksum)}};
}

int Refused(const Job &job, const char *step, uint32_t state, const std::string &hint) {
  if (job.options.json) {
    PrintJson(Report(job, state, step));
    return EXIT_REFUSED;
  }
  Fail(step, MacText(job.session.mac) + " refused: " + StateName(state), EXIT_REFUSED);
  if (!hint.empty()) PrintError(hint);
  return EXIT_REFUSED;
}

bool ReadNumber(const Options &options, const char *name, uint32_t lowest, uint32_t &number) {
  const std::string *text = Given(options, name);
  if (text == nullptr) return true;
  const std::optional<uint32_t> given = ParseU32(*text);
  number = given.value_or(0);
  if (given && *given >= lowest) return true;
  PrintError(std::string(name) + " must be a number from " + std::to_string(lowest) +
             " to 0xffffffff, not '" + *text + "'");
  return false;
}

bool ReadZipPassword(const Options &options, Update &update) {
  const std::string *text = Given(options, "--zip-password");
  if (text == nullptr) return true;
  update.zip_password = {*text, MAX_ZIP_PASSWORD, "--zip-password"};
  update.password = {"", PASSWORD_BEFORE_ZIP, "with --zip-password, the administrator's password"};
  if (!text->empty()) return true;
  PrintError("--zip-password must not be empty");
  return false;
}

int ReadArguments(const Options &options, Job &job) {
  job.update.password = AdminPassword("");
  if (!ReadNumber(options, "--type", 1, job.update.type) ||
      !ReadNumber(options, "--product", 0, job.update.product) ||
      !ReadZipPassword(options, job.update))
    return EXIT_USAGE;
  std::string why;
  const std::string path = options.arguments.at("IMAGE");
  if (!OpenImage(path, job.image, why)) {
    PrintError("cannot send " + SafeText(path) + ": " + why);
    return EXIT_USAGE;
  }
  job.update.size = job.image.size;
  job.update.checksum = job.image.checksum;
  const int status = ReadCredentials(options, job.credentials);
  if (job.credentials.password) job.update.password.text = job.credentials.password->text;
  return status;
}

int OpenJobSession(const Options &options, Job &job) {
  std::vector<Secret> secrets = SecretsOf(job.credentials);
  secrets.push_back(job.update.password);
  if (job.update.zip_password) secrets.push_back(*job.update.zip_password);
  const int status = OpenSession(options, secrets, job.session);
  if (status == EXIT_USAGE) return status;
  if (status != EXIT_DONE) return Fail("key", "nothing was changed", status);
  job.options = SessionOptions(options, job.session);
  return EXIT_DONE;
}

int CheckAppliance(Job &job) {
  const DiscoverInfo &info = job.session.info;
  const std::string mac = MacText(job.session.mac);
  if (Given(job.options, "--product") == nullptr) job.update.product = info.product_id;
  if (job.update.product != info.product_id)
    return Fail("key",
                "the image is for product " + HexText(job.update.product) + ", but " + mac +
                    " is product " + HexText(info.product_id),
                EXIT_REFUSED);
  if (info.address == 0)
    return Fail("key", mac + " has no IPv4 address to send the image to", EXIT_NO_ANSWER);
  return EXIT_DONE;
}

int ShowPlan(const Job &job) {
  if (job.options.json) {
    Json object = Report(job, ACP_STATE_OK, "key");
    object["dry_run"] = true;
    PrintJson(object);
    return EXIT_DONE;
  }
  const DiscoverInfo &info = job.session.info;
  PrintTable(
      {{"Appliance:", MacText(job.session.mac) + ", " + AddressText(info.address)},
       {"Product:", HexText(job.update.product)},
       {"Image:", SafeText(job.image.path)},
       {"Type:", std::to_string(job.update.type)},
       {"Size:", SizeText(job.image.size) + " (" + std::to_string(job.image.size) + " bytes)"},
       {"Checksum:", WordText(job.image.checksum)}});
  PrintLine("dry run: nothing was changed");
  return EXIT_DONE;
}

// Interrupts are no longer held: a second one ends the program at once.
int GiveUp(const Job &job, const char *step, const std::string &why) {
  Fail(step, why, EXIT_NO_ANSWER);
  DropInterrupts(job.interrupt);
  ReleaseInterrupts();
  Exchange exchange;
  const auto timeout = std::min<std::chrono::microseconds>(job.options.timeout, GIVE_UP_TIMEOUT);
  if (Begin(job.options, MakeUpdateEndRequest(false), exchange) != EXIT_DONE ||
      !Await(exchange, timeout, Descriptor()))
    PrintError(MacText(job.session.mac) + " may still be waiting for the image");
  return EXIT_NO_ANSWER;
}

int AuthorizeUpdate(const Job &job) {
  if (!MustVerifyPassword(job)) return EXIT_DONE;
  Refusal refusal;
  const int status = Authorize(job.options, job.session, job.credentials, refusal);
  if (status == EXIT_REFUSED) return Refused(job, "request", refusal.state, refusal.hint);
  return status == EXIT_DONE ? status : Fail("request", "nothing was changed", status);
}

int AskForUpdate(const Job &job) {
  Exchange exchange;
  const int status = Begin(job.options, MakeUpdateRequest(job.update, job.session.key), exchange);
  if (status != EXIT_DONE) return Fail("request", "it could not be sent", status);
  const std::optional<Answer> answer = Await(exchange, job.options.timeout, job.interrupt);
  if (!answer)
    return GiveUp(job, "request", Interrupted(job.interrupt) ? "interrupted" : "no answer");
  if (answer->state == ACP_STATE_OK) return EXIT_DONE;
  const bool unverified = answer->state == ACP_STATE_PASSWORD_ERROR && MustVerifyPassword(job);
  return Refused(job, "request", answer->state,
                 unverified ? NotVerifiedHint(job.session) : HintFor(REQUEST_HINTS, answer->state));
}

int SendImage(const Job &job) {
  Receiver receiver;
  receiver.address = job.session.info.address;
  receiver.interface = job.session.interface;
  receiver.timeout = std::min<std::chrono::microseconds>(job.options.timeout, STALL_TIMEOUT);
  std::string why;
  if (!Upload(job.image, receiver, job.options.json, job.interrupt, why))
    return GiveUp(job, "upload", why);
  return Interrupted(job.interrupt) ? GiveUp(job, "upload", "interrupted") : EXIT_DONE;
}

int ShowDone(const Job &job) {
  if (job.options.json)
    PrintJson(Report(job, ACP_STATE_OK, FINISH));
  else
    PrintLine("installed " + SizeText(job.image.size) + ", checksum " +
              WordText(job.image.checksum) + ", on " + MacText(job.session.mac));
  return EXIT_DONE;
}

// If the first reply is lost, the second one is enough.
int Install(const Job &job) {
  Exchange exchange;
  const int status = Begin(job.options, MakeUpdateEndRequest(true), exchange);
  if (status != EXIT_DONE) return GiveUp(job, "end", "it could not be sent");
  ReleaseInterrupts();
  std::optional<Answer> answer = Await(exchange, job.options.timeout, Descriptor());
  if (!answer)
    return Fail("end", "no answer; the installation may continue anyway", EXIT_NO_ANSWER);
  if (answer->command == ACP_FIRMUP_END_REPLY) {
    if (answer->state != ACP_STATE_OK)
      return Refused(job, "end", answer->state, HintFor(END_HINTS, answer->state));
    if (!job.options.json) fputs("installing; this may take minutes\n", stderr);
    answer = Await(exchange, job.options.timeout, Descriptor());
  }
  if (!answer)
    return Fail(FINISH, "no answer; the installation may continue anyway", EXIT_NO_ANSWER);
  if (answer->state == ACP_STATE_OK) return ShowDone(job);
  return Refused(job, FINISH, answer->state, HintFor(FINISH_HINTS, answer->state));
}

// A long password overlaps a number of the record, which SwapAcpHeader converts to little endian.
// So its four bytes are stored as the number that converts back to them.
void KeepWireBytes(std::vector<uint8_t> &body, size_t at) {
  uint32_t number = 0;
  for (size_t i = sizeof(number); i-- > 0;)
    number = number << 8 | body[at + i];
  memcpy(body.data() + at, &number, sizeof(number));
}

}  // namespace

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

int Upgrade(const Options &options) {
  Job job;
  int status = ReadArguments(options, job);
  if (status == EXIT_DONE) status = OpenJobSession(options, job);
  if (status == EXIT_DONE) status = CheckAppliance(job);
  if (status != EXIT_DONE) return status;
  if (options.arguments.contains("--dry-run")) return ShowPlan(job);
  status = AuthorizeUpdate(job);
  if (status != EXIT_DONE) return status;
  job.interrupt = HoldInterrupts();
  status = AskForUpdate(job);
  if (status == EXIT_DONE) status = SendImage(job);
  return status == EXIT_DONE ? Install(job) : status;
}

}  // namespace bhctl
