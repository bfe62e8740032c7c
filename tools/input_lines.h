// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace keel {

// Lines from a descriptor that is waited for with poll(2). Empty lines are left out.
class InputLines {
 public:
  static constexpr std::size_t kLineBytes = 64u << 20;

  // The descriptor is borrowed.
  explicit InputLines(int descriptor) : descriptor_(descriptor) {}

  // Reads once what is there; false when it failed or the line is too long, with the reason in
  // `fault`.
  bool read(std::string& fault);
  // The next whole line; at the end of the input also one without its end.
  std::optional<std::string> next();
  // Nothing more will be read; lines may be left.
  bool atEnd() const { return atEnd_; }
  // Of the line that next() gave last, from 1.
  std::size_t lineNumber() const { return lineNumber_; }

 private:
  const int descriptor_;
  std::string pending_;
  std::size_t searched_ = 0;  // bytes of pending_ that hold no line's end
  bool atEnd_ = false;
  std::size_t lineNumber_ = 0;
};

}  // namespace keel
