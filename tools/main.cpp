// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/keelctl.h"
#include "tools/signals.h"

int main(int count, char** words) {
  keel::endOnSignals();
  keel::Console console(STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO);
  const int code = keel::runKeelctl(std::vector<std::string>(words + 1, words + count), console);
  // All output is written. The library's thread goes on running, so nothing that it uses may be destroyed.
  _exit(code);
}
