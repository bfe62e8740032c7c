// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <variant>

namespace keel {

// Who belongs to which group, as the system's accounts say at this moment: every call asks them
// again and may block on it. From any thread. Abstract, so that tests can stand in for the
// accounts.
class Membership {
 public:
  // Of one user or one group, made by this membership alone.
  class Identifier {
   public:
    struct User {
      std::string name;
      gid_t primaryGroup;
    };
    struct Group {
      gid_t id;
    };

    Identifier() = default;
    explicit Identifier(User user) : who_(std::move(user)) {}
    explicit Identifier(Group group) : who_(group) {}

    // Null when it is of another kind.
    const User* user() const { return std::get_if<User>(&who_); }
    const Group* group() const { return std::get_if<Group>(&who_); }

   private:
    std::variant<std::monostate, User, Group> who_;
  };

  virtual ~Membership() = default;

  // The name under which the account itself goes, for any name that leads to it. Nothing when no
  // account does, when the accounts cannot be asked, or when the entry is larger than 2048 bytes.
  virtual std::optional<std::string> shortName(const std::string& name) = 0;

  // All three yield 0 and fill in their last argument, or an errno: ENOENT when there is no such
  // user or group, EINVAL for a name that cannot be one (with a NUL in it, or too long) or an
  // identifier of the wrong kind, else what failed.
  virtual int mbr_user_name_to_uuid(const std::string& name, Identifier& user) = 0;
  virtual int mbr_group_name_to_uuid(const std::string& name, Identifier& group) = 0;
  // The user's primary group counts.
  virtual int mbr_check_membership(const Identifier& user, const Identifier& group,
                                   bool& isMember) = 0;
};

// The accounts of this machine.
Membership& systemMembership();

}  // namespace keel
