// SPDX-License-Identifier: Apache-2.0
#include "tools/console.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace keel {

namespace {

bool wantsColour() {
  const char* refused = std::getenv("NO_COLOR");
  return refused == nullptr || *refused == '\0';
}

// Returns 0 or the errno of the failure. Waits for room even if another process that shares the
// descriptor has made it non-blocking.
int writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd room{descriptor, POLLOUT, 0};
      ::poll(&room, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

Console::Console(int input, int output, int errors)
    : input_(input),
      output_(output),
      errors_(errors),
      isTerminal_(::isatty(output) == 1),
      inColour_(isTerminal_ && wantsColour()) {}

std::size_t Console::columns() const {
  constexpr std::size_t kUsual = 80;
  // Narrower text would be nothing but fragments.
  constexpr std::size_t kLeast = 40;
  winsize size{};
  const bool isKnown = isTerminal_ && ::ioctl(output_, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return isKnown ? std::max<std::size_t>(size.ws_col, kLeast) : kUsual;
}

bool Console::write(std::string_view text) {
  if (outputGone_) return false;
  const int error = writeAll(output_, text);
  outputGone_ = error != 0;
  if (error != EPIPE) outputError_ = error;
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
