// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace keel {

// The names that an administrator has reserved: only their user and root may publish them. Built
// once from rules, then immutable; without rules everybody may publish every name.
//
// A rule is a line "NAME USER" or "PREFIX* USER". USER, a login name or uid, is the last word, so
// names may contain spaces. Empty lines, and comments from a "#" at the beginning of a word, are
// ignored. An exact name wins over a prefix, a longer prefix over a shorter one.
class NameReservations {
 public:
  // Returns the uid of a login name.
  using FindUser = std::function<std::optional<uid_t>(const std::string& loginName)>;

  // Adds the rules of `text`. Returns the problems, each with its line and what to do: a malformed
  // line, or one that contradicts an earlier one, is ignored; one with an unknown user reserves the
  // name for root alone, so that a misspelling does not leave it open. `file` is the file's name in
  // the problems.
  std::vector<std::string> add(std::string_view text, const std::string& file,
                               const FindUser& findUser);

  // Returns the user that the name is reserved for, if it is.
  std::optional<uid_t> ownerOf(std::string_view name) const;
  bool mayPublish(uid_t user, std::string_view name) const;
  std::size_t count() const { return names_.size() + prefixCount_; }

 private:
  struct Rule {
    uid_t owner;
    std::string place;  // "FILE:LINE"
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
  };
  using Rules = std::unordered_map<std::string, Rule, Hash, std::equal_to<>>;

  // Returns the problem, if any.
  std::optional<std::string> addLine(std::string_view line, const std::string& place,
                                     const FindUser& findUser);

  Rules names_;
  // Longest first.
  std::map<std::size_t, Rules, std::greater<>> prefixesByLength_;
  std::size_t prefixCount_ = 0;
};

}  // namespace keel
