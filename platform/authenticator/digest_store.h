// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "platform/authenticator/complaint.h"
#include "platform/authenticator/digest_answer.h"
#include "runtime/foundation/secret.h"

namespace keel {

// Finds the credentials for answers to challenges. Reads the file anew each time and keeps nothing:
// what is changed counts at once, and no credentials lie in the daemon's memory. A file that cannot
// be used safely holds nobody, which is logged once. From any thread.
class DigestStore {
 public:
  struct Credentials {
    std::string user;
    Secret digest;  // of USER:REALM:PASSWORD, by the answer's algorithm
  };

  explicit DigestStore(std::string path) : path_(std::move(path)) {}

  // Those of the user whom the answer names, in the realm it names, for its algorithm; of several
  // the last.
  std::optional<Credentials> find(const DigestAnswer& answer);

 private:
  const std::string path_;
  Complaint complaint_;
};

}  // namespace keel
