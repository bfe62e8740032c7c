// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/string.h"

namespace keel {

// Key in an error's user info of its text for people.
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
  // A null domain becomes an empty one.
  Error(String domain, std::int64_t code, Dictionary userInfo = nullptr);

  explicit operator bool() const { return body_ != nullptr; }
  // Return null, 0 and null for no error.
  String domain() const;
  std::int64_t code() const;
  Dictionary userInfo() const;

  // Returns one line for a log: the description in the user info if there is one, then "(domain
  // error code)". "(null)" for no error.
  std::string description() const;

  // Compares domain, code and the bytes of the user info.
  friend bool operator==(const Error& left, const Error& right);

 private:
  struct Body;
  std::shared_ptr<const Body> body_;
};

// Returns an error whose user info holds `description`. Bytes that are not UTF-8, for example of a
// file name, become "?".
Error describedError(std::string_view domain, std::int64_t code, std::string description);

}  // namespace keel
