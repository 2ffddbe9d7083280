// A firmware update. It has five steps: key, request, upload, end of the upload, end of the
// installation. After the request, a receiver on the appliance waits for the upload and blocks the
// port for others. So the appliance is told when the client gives up.

#ifndef BH_CLIENT_UPDATE_H_
#define BH_CLIENT_UPDATE_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "client/credentials.h"
#include "client/exchange.h"
#include "client/image.h"
#include "client/session.h"
#include "client/upload.h"

namespace acp {

// The image's properties and the passwords of an update request.
struct Update {
  uint32_t type = 0;     // decides where the image is installed
  uint32_t product = 0;  // product ID of the image
  uint32_t size = 0;     // bytes
  uint32_t checksum = 0;
  Secret password;  // the administrator's
  std::optional<Secret> zip_password;
};

// Maximum bytes of the administrator's password if an archive's follows, and of the archive's.
constexpr size_t PASSWORD_BEFORE_ZIP = 8;
constexpr size_t MAX_ZIP_PASSWORD = 511;

// Products that read no password from the request: a password must have been verified before.
bool VerifiesPassword(uint32_t product);

// EncodePassword must accept both passwords under the key.
Request MakeUpdateRequest(const Update &update, uint32_t key);

// The first reply tells whether the image is accepted, the second one whether it was installed.
Request MakeUpdateEndRequest(bool uploaded);

// What an update needs. Size and checksum come from the image.
struct UpdatePlan {
  const Image *image = nullptr;  // may serve several updates at once
  uint32_t type = 0;
  std::optional<uint32_t> product;  // unset: the appliance's own
  std::optional<std::string> zip_password;
  Credentials credentials;
};

// A planned update of one appliance.
struct UpdateJob {
  Scope scope;  // of the session
  Session session;
  const Image *image = nullptr;
  Update update;
  Credentials credentials;
};

// The steps, as Outcome::step names them.
constexpr const char *STEP_KEY = "key";
constexpr const char *STEP_REQUEST = "request";
constexpr const char *STEP_UPLOAD = "upload";
constexpr const char *STEP_END = "end";
constexpr const char *STEP_FINISH = "finish";

struct UpdateProgress {
  UploadProgress upload;             // may be empty
  std::function<void()> installing;  // the image was accepted; may be empty
};

// Checks the plan for the appliance that `discovered` comes from, and opens the session. Changes
// nothing on the appliance.
Outcome PrepareUpdate(const Scope &scope, const Answer &discovered, const UpdatePlan &plan,
                      UpdateJob &job);

// Whether the upload would reach the appliance, and whether it would accept the passwords. Where
// that cannot be tried, scope.warn says so.
Outcome TryUpdate(const UpdateJob &job);

Outcome RunUpdate(const UpdateJob &job, const UpdateProgress &progress);

}  // namespace acp

#endif  // BH_CLIENT_UPDATE_H_
