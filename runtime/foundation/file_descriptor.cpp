// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/file_descriptor.h"

#include <unistd.h>

#include <cerrno>

namespace keel {

void FileDescriptor::reset(int descriptor) noexcept {
  if (descriptor_ >= 0) {
    // Owners are often destroyed on an error path whose errno is still to be read. A failing
    // close(2) has released the descriptor all the same, so its error is ignored.
    const int kept = errno;
    ::close(descriptor_);
    errno = kept;
  }
  descriptor_ = descriptor;
}

}  // namespace keel
