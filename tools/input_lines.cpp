// SPDX-License-Identifier: Apache-2.0
#include "tools/input_lines.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace keel {

bool InputLines::read(std::string& fault) {
  std::array<char, 64u << 10> buffer;
  const ssize_t count = ::read(descriptor_, buffer.data(), buffer.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (count < 0) {
    fault = std::string("cannot read standard input: ") + std::strerror(errno);
    return false;
  }
  if (count == 0) atEnd_ = true;
  pending_.append(buffer.data(), static_cast<std::size_t>(count));
  if (pending_.size() <= kLineBytes) return true;
  fault = "a line of standard input is longer than " + std::to_string(kLineBytes) + " bytes";
  return false;
}

std::optional<std::string> InputLines::next() {
  for (;;) {
    std::size_t end = pending_.find('\n', searched_);
    if (end == std::string::npos) {
      searched_ = pending_.size();
      if (!atEnd_ || pending_.empty()) return std::nullopt;
      end = pending_.size();
    }
    std::string line = pending_.substr(0, end);
    pending_.erase(0, std::min(end + 1, pending_.size()));
    searched_ = 0;
    ++lineNumber_;
    if (line.find_first_not_of(" \t\r") != std::string::npos) return line;
  }
}

}  // namespace keel
