// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "runtime/foundation/secret.h"

// Protocol between the daemon and its helper program keel-pam: one request packet, one byte in
// reply.

namespace keel {

// LOGIN_NAME_MAX without the NUL: no account has a longer name.
inline constexpr std::size_t kUserNameBytes = 255;
// PAM_MAX_RESP_SIZE without the NUL: modules need not accept a longer one.
inline constexpr std::size_t kPasswordBytes = 511;

struct PamQuestion {
  enum class Task : std::uint8_t {
    password = 'p',  // check the password, and that the account may be used
    account = 'a',   // check that the account may be used; the user is authenticated already and
                     // there is no password
  };
  Task task;
  // The user who makes the attempt, for PAM_RUSER; none if unknown.
  std::optional<uid_t> askingUser{};
  std::string_view user;      // 1 to kUserNameBytes; followed by a NUL where a packet was decoded
  std::string_view password;  // 0 to kPasswordBytes; likewise
};

enum class PamVerdict : std::uint8_t {
  accepted = '+',
  refused = '-',
  withoutService = 's',  // the service's file is missing
  failed = 'f',          // PAM could not be queried
};

// Task, the asking user's decimal digits or nothing, NUL, user, NUL, password, NUL.
inline constexpr std::size_t kPamQuestionBytes =
    1 + std::numeric_limits<uid_t>::digits10 + 1 + 1 + kUserNameBytes + 1 + kPasswordBytes + 1;

// Returns nothing for a request that PAM cannot take: a size out of bounds, a NUL in the password,
// a control character or "/" in the name.
std::optional<Secret> encodePamQuestion(const PamQuestion& question);
// The result points into `packet`. Returns nothing for a malformed packet.
std::optional<PamQuestion> decodePamQuestion(std::span<const std::byte> packet);

}  // namespace keel
