// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <variant>

namespace keel {

// Resolves users, groups and memberships from the system's accounts. Every call queries them anew
// and may block. From any thread. Abstract so that tests can replace the accounts.
class Membership {
 public:
  // Identifies one user or one group; created only by a Membership.
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

    // Null for an identifier of another kind.
    const User* user() const { return std::get_if<User>(&who_); }
    const Group* group() const { return std::get_if<Group>(&who_); }

   private:
    std::variant<std::monostate, User, Group> who_;
  };

  virtual ~Membership() = default;

  // Returns the account's canonical name for any of its names. Returns nothing if there is no such
  // account, if the accounts cannot be queried, or if the entry exceeds 2048 bytes.
  virtual std::optional<std::string> shortName(const std::string& name) = 0;

  // All three return 0 and set their last argument, or return an errno: ENOENT for an unknown user
  // or group, EINVAL for an invalid name (with a NUL, or too long) or an identifier of the wrong
  // kind, else that of the call that failed.
  virtual int mbr_user_name_to_uuid(const std::string& name, Identifier& user) = 0;
  virtual int mbr_group_name_to_uuid(const std::string& name, Identifier& group) = 0;
  // Includes the user's primary group.
  virtual int mbr_check_membership(const Identifier& user, const Identifier& group,
                                   bool& isMember) = 0;
};

// Returns this machine's accounts.
Membership& systemMembership();

}  // namespace keel
