// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/keelctl.h"
#include "tools/signals.h"

namespace {

// Opens missing standard descriptors, which the next opened file would get otherwise. They are
// opened for the wrong direction, so that reading and writing fail as they should.
void fillStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) < 0)
      ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace

int main(int count, char** words) {
  fillStandardDescriptors();
  keel::endOnSignals();
  keel::Console console(STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO);
  const int code = keel::runKeelctl(std::vector<std::string>(words + 1, words + count), console);
  // All output is written. The library's thread is still running, so static objects must not be
  // destroyed.
  _exit(code);
}
