// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "runtime/foundation/secret.h"

// What the daemon and its helper program keel-pam say to each other: one packet with a question,
// one byte in answer.

namespace keel {

// LOGIN_NAME_MAX without its NUL: no account has a longer name.
inline constexpr std::size_t kUserNameBytes = 255;
// PAM_MAX_RESP_SIZE without its NUL: modules need not take a longer one.
inline constexpr std::size_t kPasswordBytes = 511;

struct PamQuestion {
  enum class Task : std::uint8_t {
    password = 'p',  // is that the account's password, and may the account be used?
    account = 'a',   // may the account be used, now that something else proved its user? Without a
                     // password.
  };
  Task task;
  std::string_view user;      // 1 to kUserNameBytes; followed by a NUL where a packet was decoded
  std::string_view password;  // 0 to kPasswordBytes; likewise
};

enum class PamVerdict : std::uint8_t {
  accepted = '+',
  refused = '-',
  withoutService = 's',  // the service's file is missing
  failed = 'f',          // PAM could not be asked
};

// Task, user, NUL, password, NUL.
inline constexpr std::size_t kPamQuestionBytes = 1 + kUserNameBytes + 1 + kPasswordBytes + 1;

// Nothing when PAM cannot be asked that: a size out of bounds, a NUL in the password, a control
// character or "/" in the name.
std::optional<Secret> encodePamQuestion(const PamQuestion& question);
// Its texts lie in `packet`. Nothing when it is not such a packet.
std::optional<PamQuestion> decodePamQuestion(std::span<const std::byte> packet);

}  // namespace keel
