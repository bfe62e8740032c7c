// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string_view>

#include "runtime/foundation/secret.h"

// Answers to the challenges of KLNAuthClient, for programs that have a name and a password.

namespace keel {

// To a basic challenge (RFC 7617). Nothing for a user whose name holds a colon.
std::optional<Secret> basicAnswer(std::string_view user, const Secret& password);

// To a digest challenge (RFC 7616): it proves that its maker knows the password, and is of no use
// for any other challenge.
class DigestReply {
 public:
  // `challenge` is AuthChallenge::text, of which the first line that can be answered counts.
  // Nothing when none can.
  static std::optional<DigestReply> to(std::string_view challenge, std::string_view user,
                                       const Secret& password);

  const Secret& answer() const { return answer_; }
  // Whether `response`, AuthProof::response, shows that keeld knows the password too.
  bool isConfirmedBy(std::string_view response) const;

 private:
  DigestReply(Secret answer, Secret confirmation)
      : answer_(std::move(answer)), confirmation_(std::move(confirmation)) {}

  Secret answer_;
  Secret confirmation_;
};

}  // namespace keel
