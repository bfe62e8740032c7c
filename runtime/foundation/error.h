// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/string.h"

namespace keel {

// Key of an error's user info under which its text for people stands.
inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
// Domain of errors whose code is a status of Authorization Services.
inline constexpr std::string_view NSOSStatusErrorDomain = "NSOSStatusErrorDomain";
// Domain of errors whose code is an errno.
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

// An error value, or null (no error). Immutable and shared.
class Error {
 public:
  Error() = default;
  Error(std::nullptr_t) {}
  // A null domain becomes the empty one.
  Error(String domain, std::int64_t code, Dictionary userInfo = nullptr);

  explicit operator bool() const { return body_ != nullptr; }
  // Null, 0 and null for no error.
  String domain() const;
  std::int64_t code() const;
  Dictionary userInfo() const;

  // One line for a log: the user info's description when there is one, then "(domain error code)".
  // "(null)" for no error.
  std::string description() const;

  // Same domain, code and user info bytes.
  friend bool operator==(const Error& left, const Error& right);

 private:
  struct Body;
  std::shared_ptr<const Body> body_;
};

// An error whose user info has `description`. What in it is not UTF-8, such as the name of a file,
// shows as "?".
Error describedError(std::string_view domain, std::int64_t code, std::string description);

}  // namespace keel
