// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace keel {

// Bytes that nobody may find in memory afterwards: a password, or what is as good as one. Wiped
// when they are let go of. They never grow, so that no copy of them is left behind. Copies are made
// with Secret(text()), where they can be seen.
class Secret {
 public:
  Secret() = default;
  // That many zeros.
  explicit Secret(std::size_t sizeBytes);
  explicit Secret(std::string_view text);
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;
  ~Secret();

  std::span<std::byte> bytes() { return {bytes_.get(), size_}; }
  std::string_view text() const { return {reinterpret_cast<const char*>(bytes_.get()), size_}; }

  // Cuts off, and wipes, what is beyond; a larger size than the present one changes nothing.
  void shrink(std::size_t sizeBytes);

 private:
  std::unique_ptr<std::byte[]> bytes_;
  std::size_t size_ = 0;
};

// Overwrites memory with zeros even where the compiler can tell that nobody reads it again.
void wipe(std::span<std::byte> bytes);

// Overwrites what functions that have returned left on the stack of this thread, kStackBytes deep:
// registers are saved there in passing, and with them parts of what was copied last.
void wipeStack();
inline constexpr std::size_t kStackBytes = 64u << 10;

}  // namespace keel
