// SPDX-License-Identifier: Apache-2.0
#include "platform/product/crash_annotation.h"

#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace keel {
namespace {

// Returns the running executable's section of that name, located through the file alone, like a
// debugger.
std::optional<Elf64_Shdr> sectionNamed(std::string_view name) {
  std::ifstream file("/proc/self/exe", std::ios::binary);
  const auto readAt = [&file](std::uint64_t offset, void* target, std::size_t bytes) {
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(static_cast<char*>(target), static_cast<std::streamsize>(bytes));
  };
  Elf64_Ehdr header{};
  readAt(0, &header, sizeof header);
  std::vector<Elf64_Shdr> sections(header.e_shnum);
  readAt(header.e_shoff, sections.data(), sections.size() * sizeof(Elf64_Shdr));
  const Elf64_Shdr& nameSection = sections.at(header.e_shstrndx);
  std::vector<char> names(nameSection.sh_size);
  readAt(nameSection.sh_offset, names.data(), names.size());
  for (const Elf64_Shdr& section : sections)
    if (names.data() + section.sh_name == name) return section;
  return std::nullopt;
}

// Returns the executable's load offset.
std::uintptr_t loadOffset() {
  std::uintptr_t offset = 0;
  // The executable is the first to be reported.
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        *static_cast<std::uintptr_t*>(result) = info->dlpi_addr;
        return 1;
      },
      &offset);
  return offset;
}

TEST(CrashAnnotation, IsVersion5WithoutMessageBeforeTheBanner) {
  EXPECT_EQ(crashAnnotation().version, 5U);
  EXPECT_EQ(crashAnnotation().message, nullptr);
}

TEST(CrashAnnotation, IsTheExecutablesSection) {
  const auto section = sectionNamed("keel_crash_info");
  ASSERT_TRUE(section);
  EXPECT_EQ(section->sh_size, sizeof(CrashAnnotation));
  EXPECT_EQ(section->sh_addr + loadOffset(), reinterpret_cast<std::uintptr_t>(&crashAnnotation()));
}

// The banner is set once per process, so each of these runs in its own process and reports on
// standard error.

[[noreturn]] void showBannerOfSection(const std::string& version) {
  const auto section = sectionNamed("keel_crash_info");
  if (!section) std::exit(1);
  setCrashBanner(version.c_str());
  CrashAnnotation found{};
  std::memcpy(&found, reinterpret_cast<const void*>(section->sh_addr + loadOffset()), sizeof found);
  std::fprintf(stderr, "%llu:%s", static_cast<unsigned long long>(found.version), found.message);
  std::exit(0);
}

TEST(SetCrashBannerDeathTest, FillsTheMessageOfTheSection) {
  EXPECT_EXIT(showBannerOfSection("4.2 (17B5)"), ::testing::ExitedWithCode(0),
              "^5:\\* Calder Version 4\\.2 \\(17B5\\) \\*$");
}

TEST(SetCrashBannerDeathTest, VersionOf236CharactersIsWhole) {
  EXPECT_EXIT(showBannerOfSection(std::string(236, '7')), ::testing::ExitedWithCode(0),
              "^5:\\* Calder Version " + std::string(236, '7') + " \\*$");
}

TEST(SetCrashBannerDeathTest, VersionOf237CharactersLosesTheStar) {
  EXPECT_EXIT(showBannerOfSection(std::string(237, '7')), ::testing::ExitedWithCode(0),
              "^5:\\* Calder Version " + std::string(237, '7') + " $");
}

TEST(SetCrashBannerDeathTest, LongVersionIsCutAt255Characters) {
  EXPECT_EXIT(showBannerOfSection(std::string(10000, '7')), ::testing::ExitedWithCode(0),
              "^5:\\* Calder Version " + std::string(238, '7') + "$");
}

void exitWithPointerState(int) {
  ::_exit(crashAnnotation().message != nullptr ? 0 : 3);
}

// An unreadable version interrupts the formatting; the pointer must be set by then.
[[noreturn]] void crashWhileFilling() {
  struct sigaction action{};
  action.sa_handler = exitWithPointerState;
  ::sigaction(SIGSEGV, &action, nullptr);
  void* const unreadable = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  setCrashBanner(static_cast<const char*>(unreadable));
  ::_exit(4);
}

TEST(SetCrashBannerDeathTest, PointerIsSetBeforeTheBufferIsFilled) {
  EXPECT_EXIT(crashWhileFilling(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace keel
