// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace keel {

// Bytes that must not remain in memory, such as a password. Wiped on destruction. Never grows, so
// no copy is left behind. Copies are made with Secret(text()), where they can be seen.
class Secret {
 public:
  Secret() = default;
  // Holds `sizeBytes` zeros.
  explicit Secret(std::size_t sizeBytes);
  explicit Secret(std::string_view text);
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;
  ~Secret();

  std::span<std::byte> bytes() { return {bytes_.get(), size_}; }
  std::string_view text() const { return {reinterpret_cast<const char*>(bytes_.get()), size_}; }

  // Truncates, and wipes the rest; a larger size has no effect.
  void shrink(std::size_t sizeBytes);

 private:
  std::unique_ptr<std::byte[]> bytes_;
  std::size_t size_ = 0;
};

// Overwrites memory with zeros even where the compiler can prove that nothing reads it again.
void wipe(std::span<std::byte> bytes);

// Overwrites what returned functions left on the stack of this thread, kStackBytes deep: registers
// spilled there may hold parts of what was copied last.
void wipeStack();
inline constexpr std::size_t kStackBytes = 64u << 10;

}  // namespace keel
