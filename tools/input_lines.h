// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace keel {

// Splits the input from a descriptor, which the owner polls, into lines. Skips empty lines.
class InputLines {
 public:
  static constexpr std::size_t kLineBytes = 64u << 20;

  // The descriptor is borrowed.
  explicit InputLines(int descriptor) : descriptor_(descriptor) {}

  // Reads once. Returns false, with the reason in `fault`, if reading failed or the line is too
  // long.
  bool read(std::string& fault);
  // Returns the next complete line; at the end of the input also an unterminated one.
  std::optional<std::string> next();
  // Returns true at the end of the input; lines may be left.
  bool atEnd() const { return atEnd_; }
  // Returns the number of the line that next() returned last, from 1.
  std::size_t lineNumber() const { return lineNumber_; }

 private:
  const int descriptor_;
  std::string pending_;
  std::size_t searched_ = 0;  // bytes of pending_ known to hold no newline
  bool atEnd_ = false;
  std::size_t lineNumber_ = 0;
};

}  // namespace keel
