// SPDX-License-Identifier: Apache-2.0
#include "tools/console.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace keel {

namespace {

bool wantsColour() {
  const char* refused = std::getenv("NO_COLOR");
  return refused == nullptr || *refused == '\0';
}

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

Console::Console(int input, int output, int errors)
    : input_(input),
      output_(output),
      errors_(errors),
      isTerminal_(::isatty(output) == 1),
      inColour_(isTerminal_ && wantsColour()) {}

bool Console::write(std::string_view text) {
  outputGone_ = outputGone_ || !writeAll(output_, text);
  return !outputGone_;
}

bool Console::writeLine(std::string line) {
  line += '\n';
  return write(line);
}

void Console::note(std::string_view text) {
  status("keelctl: " + std::string(text));
}

void Console::status(std::string_view text) {
  writeAll(errors_, std::string(text) + '\n');
}

std::string Console::bold(std::string text) const {
  return inColour_ ? "\x1b[1m" + text + "\x1b[0m" : text;
}

std::string Console::dim(std::string text) const {
  return inColour_ ? "\x1b[2m" + text + "\x1b[0m" : text;
}

}  // namespace keel
