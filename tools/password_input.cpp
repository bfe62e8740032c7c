// SPDX-License-Identifier: Apache-2.0
#include "tools/password_input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/utf8.h"
#include "tools/signals.h"

namespace keel {

namespace {

using Failure = std::unexpected<std::string>;

// Reads a line, terminated by a newline or the end of the input, and returns it without the
// newline.
std::expected<Secret, std::string> readLine(int descriptor) {
  Secret line(kLongestPasswordBytes + 1);
  std::size_t size = 0;
  for (;;) {
    // Byte by byte: the rest of the input is left to the next reader.
    const ssize_t count = ::read(descriptor, line.bytes().data() + size, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0)
      return Failure(fmt::format("cannot read the password: {}", std::strerror(errno)));
    if (count == 0 && size == 0) return Failure("there is no password: the input has ended");
    if (count == 0 || line.bytes()[size] == std::byte{'\n'}) break;
    if (++size > kLongestPasswordBytes)
      return Failure(fmt::format("the password has more than {} bytes", kLongestPasswordBytes));
  }
  line.shrink(size);
  if (!isUtf8(line.text())) return Failure("the password is not valid UTF-8");
  return line;
}

// Disables the terminal's echo while it lives. A signal that ends keelctl restores it, too.
class Unseen {
 public:
  explicit Unseen(int terminal) {
    shown_.terminal = terminal;
    if (::tcgetattr(terminal, &shown_.attributes) != 0) return;
    callAtEndBySignal(show);
    termios unseen = shown_.attributes;
    unseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    isUnseen_ = ::tcsetattr(terminal, TCSAFLUSH, &unseen) == 0;
  }
  ~Unseen() {
    if (isUnseen_) show();
    callAtEndBySignal(nullptr);
  }
  Unseen(const Unseen&) = delete;
  Unseen& operator=(const Unseen&) = delete;

  explicit operator bool() const { return isUnseen_; }

 private:
  struct Shown {
    int terminal;
    termios attributes;
  };
  static void show() { ::tcsetattr(shown_.terminal, TCSANOW, &shown_.attributes); }

  static inline Shown shown_{};
  bool isUnseen_ = false;
};

std::expected<Secret, std::string> promptFor(int terminal, std::string_view prompt) {
  const auto write = [terminal](std::string_view text) {
    return ::write(terminal, text.data(), text.size()) >= 0;
  };
  const Unseen unseen(terminal);
  if (!unseen || !write(prompt))
    return Failure(fmt::format("cannot ask on the terminal: {}", std::strerror(errno)));
  auto line = readLine(terminal);
  // The newline was not echoed either.
  write("\n");
  return line;
}

}  // namespace

std::expected<Secret, std::string> readPassword(const std::string& prompt,
                                                std::optional<int> descriptor,
                                                Prompting prompting) {
  if (descriptor) return readLine(*descriptor);
  const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal)
    return Failure("there is no terminal to ask for the password on; give it with --password-fd");
  auto password = promptFor(terminal.get(), prompt);
  if (!password || prompting == Prompting::once) return password;
  const auto again = promptFor(terminal.get(), "Once more: ");
  if (!again) return Failure(again.error());
  if (again->text() != password->text()) return Failure("the two differ; nothing was changed");
  return password;
}

}  // namespace keel
