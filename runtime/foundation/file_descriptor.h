// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>

namespace keel {

// Owns one open file descriptor, or none (-1), and closes it on destruction.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    reset(std::exchange(other.descriptor_, -1));
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

  // Releases ownership without closing.
  int release() { return std::exchange(descriptor_, -1); }

  // Closes the current descriptor, then owns `descriptor`.
  void reset(int descriptor = -1) noexcept;

 private:
  int descriptor_ = -1;
};

}  // namespace keel
