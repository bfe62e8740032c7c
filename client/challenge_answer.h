// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string_view>

#include "runtime/foundation/secret.h"

// Answers to the challenges of KLNAuthClient for programs that have a name and a password.

namespace keel {

// Answers a basic challenge (RFC 7617). Returns nothing if the user's name contains a colon.
std::optional<Secret> basicAnswer(std::string_view user, const Secret& password);

// The answer to a digest challenge (RFC 7616): proves knowledge of the password, for this challenge
// only.
class DigestReply {
 public:
  // Answers the first line of `challenge`, an AuthChallenge::text, that can be answered. Returns
  // nothing if there is none.
  static std::optional<DigestReply> to(std::string_view challenge, std::string_view user,
                                       const Secret& password);

  const Secret& answer() const { return answer_; }
  // Returns true if `response`, an AuthProof::response, proves that keeld knows the password too.
  bool isConfirmedBy(std::string_view response) const;

 private:
  DigestReply(Secret answer, Secret confirmation)
      : answer_(std::move(answer)), confirmation_(std::move(confirmation)) {}

  Secret answer_;
  Secret confirmation_;
};

}  // namespace keel
