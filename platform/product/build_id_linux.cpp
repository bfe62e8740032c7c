// SPDX-License-Identifier: Apache-2.0
#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/product/build_id.h"

namespace keel {

namespace {

constexpr std::size_t kNoteAlignment = 4;

std::size_t aligned(std::size_t size) {
  return (size + kNoteAlignment - 1) / kNoteAlignment * kNoteAlignment;
}

std::string hexadecimal(std::span<const std::byte> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<std::size_t>(byte) >> 4];
    text += kDigits[std::to_integer<std::size_t>(byte) & 0xf];
  }
  return text;
}

std::string buildIdIn(std::span<const std::byte> notes) {
  ElfW(Nhdr) header{};
  while (notes.size() >= sizeof header) {
    std::memcpy(&header, notes.data(), sizeof header);
    const std::size_t name = sizeof header;
    const std::size_t content = name + aligned(header.n_namesz);
    const std::size_t end = content + aligned(header.n_descsz);
    if (end > notes.size()) break;
    const bool isGnu = header.n_namesz == sizeof ELF_NOTE_GNU &&
                       std::memcmp(notes.data() + name, ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) == 0;
    if (isGnu && header.n_type == NT_GNU_BUILD_ID)
      return hexadecimal(notes.subspan(content, header.n_descsz));
    notes = notes.subspan(end);
  }
  return {};
}

}  // namespace

std::string buildId() {
  std::string found;
  // The executable is reported first.
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        auto& id = *static_cast<std::string*>(result);
        for (std::size_t i = 0; i < info->dlpi_phnum && id.empty(); ++i) {
          const auto& segment = info->dlpi_phdr[i];
          if (segment.p_type != PT_NOTE) continue;
          // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader names its segments by numbers.
          id = buildIdIn({reinterpret_cast<const std::byte*>(info->dlpi_addr + segment.p_vaddr),
                          segment.p_memsz});
        }
        return 1;
      },
      &found);
  return found;
}

}  // namespace keel
