// SPDX-License-Identifier: Apache-2.0
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include "platform/membership/membership.h"

namespace keel {

namespace {

// Buffer of a short name look-up.
constexpr std::size_t kShortNameBytes = 2048;
// No system allows a longer account name; directories need not be tested with enormous ones.
constexpr std::size_t kNameBytes = 255;
// A group's entry lists its members, which may be many; a user's is small.
constexpr std::size_t kFirstEntryBytes = 4096;
constexpr std::size_t kLargestEntryBytes = 16u << 20;
// The kernel's limit of groups per process.
constexpr int kLargestGroupCount = 65536;

bool canBeName(const std::string& name) {
  return !name.empty() && name.size() <= kNameBytes && name.find('\0') == std::string::npos;
}

// Calls `look(buffer)`, which returns 0 or an errno and whether there is an entry, with a larger
// buffer after each ERANGE.
template <class Look>
int lookUp(Look look) {
  for (std::size_t size = kFirstEntryBytes; size <= kLargestEntryBytes; size *= 4) {
    std::vector<char> buffer(size);
    const int problem = look(buffer);
    if (problem != ERANGE && problem != EINTR) return problem;
  }
  return ERANGE;
}

class SystemMembership final : public Membership {
 public:
  std::optional<std::string> shortName(const std::string& name) override {
    if (!canBeName(name)) return std::nullopt;
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, kShortNameBytes> buffer;
    if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr)
      return std::nullopt;
    return found->pw_name;
  }

  int mbr_user_name_to_uuid(const std::string& name, Identifier& user) override {
    if (!canBeName(name)) return EINVAL;
    return lookUp([&](std::vector<char>& buffer) {
      passwd entry{};
      passwd* found = nullptr;
      const int problem = ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
      if (problem != 0) return problem;
      if (found == nullptr) return ENOENT;
      user = Identifier(Identifier::User{found->pw_name, found->pw_gid});
      return 0;
    });
  }

  int mbr_group_name_to_uuid(const std::string& name, Identifier& group) override {
    if (!canBeName(name)) return EINVAL;
    return lookUp([&](std::vector<char>& buffer) {
      ::group entry{};
      ::group* found = nullptr;
      const int problem = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
      if (problem != 0) return problem;
      if (found == nullptr) return ENOENT;
      group = Identifier(Identifier::Group{found->gr_gid});
      return 0;
    });
  }

  int mbr_check_membership(const Identifier& user, const Identifier& group,
                           bool& isMember) override {
    const Identifier::User* const member = user.user();
    if (member == nullptr || group.group() == nullptr) return EINVAL;
    int count = 64;
    std::vector<gid_t> groups;
    do {
      groups.resize(static_cast<std::size_t>(count));
      if (::getgrouplist(member->name.c_str(), member->primaryGroup, groups.data(), &count) >= 0) {
        groups.resize(static_cast<std::size_t>(count));
        isMember = std::ranges::find(groups, group.group()->id) != groups.end();
        return 0;
      }
      // The call reports the actual count; grow the buffer even if it does not.
      count = std::max(count, static_cast<int>(groups.size()) * 2);
    } while (count <= kLargestGroupCount);
    return ERANGE;
  }
};

}  // namespace

Membership& systemMembership() {
  // Never destroyed: other threads may still query it during exit().
  static auto* const membership = new SystemMembership;
  return *membership;
}

}  // namespace keel
