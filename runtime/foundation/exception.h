// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <string>
#include <vector>

namespace keel {

// An exception that records the stack of its raiser. Only the two guards catch it: the
// notify handler's publish and subscribe work, and the module walk at start-up.
class Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason);

  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  // Returns one line per frame of the raising thread's stack, innermost first; never empty.
  const std::vector<std::string>& callStackSymbols() const { return callStackSymbols_; }
  // Returns the reason.
  const char* what() const noexcept override { return reason_.c_str(); }
  // Returns "NAME: REASON".
  std::string description() const { return name_ + ": " + reason_; }

 private:
  std::string name_;
  std::string reason_;
  std::vector<std::string> callStackSymbols_;
};

inline constexpr const char* NSRangeException = "NSRangeException";
inline constexpr const char* NSGenericException = "NSGenericException";

}  // namespace keel
