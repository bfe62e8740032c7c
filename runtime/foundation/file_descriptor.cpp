// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/file_descriptor.h"

#include <unistd.h>

#include <cerrno>

namespace keel {

void FileDescriptor::reset(int descriptor) noexcept {
  if (descriptor_ >= 0) {
    // Owners are often destroyed on the way out of a failure whose errno somebody is still to read.
    // A close that fails has released the descriptor all the same, so there is nothing to do about
    // it.
    const int kept = errno;
    ::close(descriptor_);
    errno = kept;
  }
  descriptor_ = descriptor;
}

}  // namespace keel
