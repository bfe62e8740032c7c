// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "platform/authenticator/digest_answer.h"
#include "platform/authenticator/environment_warning.h"
#include "runtime/foundation/secret.h"

namespace keel {

// Finds the credentials for answers to challenges. Reads the file on every call and caches nothing:
// changes apply immediately, and no credentials stay in the daemon's memory. A file that cannot be
// used safely yields no credentials, which is logged once. From any thread.
class DigestStore {
 public:
  struct Credentials {
    std::string user;
    Secret digest;  // of USER:REALM:PASSWORD, by the answer's algorithm
  };

  explicit DigestStore(std::string path) : path_(std::move(path)) {}

  // Returns the credentials of the answer's user, in its realm, for its algorithm; the last match
  // if there are several.
  std::optional<Credentials> find(const DigestAnswer& answer);

 private:
  const std::string path_;
  EnvironmentWarning warning_;
};

}  // namespace keel
