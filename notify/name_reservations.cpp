// SPDX-License-Identifier: Apache-2.0
#include "notify/name_reservations.h"

#include <fmt/format.h>

#include <charconv>
#include <utility>

#include "runtime/foundation/utf8.h"

namespace keel {

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr uid_t kRoot = 0;

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view withoutComment(std::string_view line) {
  for (std::size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
    if (at == 0 || kBlanks.contains(line[at - 1])) return line.substr(0, at);
  }
  return line;
}

std::optional<uid_t> uidIn(std::string_view text) {
  uid_t uid = 0;
  const auto [end, problem] = std::from_chars(text.begin(), text.end(), uid);
  // The largest value means "no user" in system calls.
  const bool isUid = problem == std::errc() && end == text.end() && uid != static_cast<uid_t>(-1);
  return isUid ? std::optional(uid) : std::nullopt;
}

}  // namespace

std::vector<std::string> NameReservations::add(std::string_view text, const std::string& file,
                                               const FindUser& findUser) {
  std::vector<std::string> problems;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    const std::string_view line = trimmed(withoutComment(text.substr(0, end)));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty()) continue;
    if (auto problem = addLine(line, fmt::format("{}:{}", file, number), findUser))
      problems.push_back(std::move(*problem));
  }
  return problems;
}

std::optional<std::string> NameReservations::addLine(std::string_view line,
                                                     const std::string& place,
                                                     const FindUser& findUser) {
  const std::size_t lastBlank = line.find_last_of(kBlanks);
  if (lastBlank == std::string_view::npos || !isUtf8(line)) {
    return fmt::format(
        "{}: not a rule, and ignored; write NAME USER or PREFIX* USER, in UTF-8, a rule a line",
        place);
  }
  const std::string_view pattern = trimmed(line.substr(0, lastBlank));
  const std::string user(line.substr(lastBlank + 1));
  std::optional<uid_t> owner = uidIn(user);
  if (!owner) owner = findUser(user);
  const bool isPrefix = pattern.ends_with('*');
  const std::string_view key = isPrefix ? pattern.substr(0, pattern.size() - 1) : pattern;
  Rules& rules = isPrefix ? prefixesByLength_[key.size()] : names_;
  const auto [rule, isNew] =
      rules.try_emplace(std::string(key), Rule{owner.value_or(kRoot), place});
  if (isNew && isPrefix) ++prefixCount_;
  if (!isNew && rule->second.owner != owner.value_or(kRoot)) {
    return fmt::format(
        "{}: {} is reserved for uid {} already, at {}; remove one of the two lines,"
        " until then the first counts",
        place, pattern, rule->second.owner, rule->second.place);
  }
  if (owner) return std::nullopt;
  return fmt::format(
      "{}: there is no user {}; until the line names one and keeld is restarted,"
      " only root may publish {}",
      place, user, pattern);
}

std::optional<uid_t> NameReservations::ownerOf(std::string_view name) const {
  if (const auto found = names_.find(name); found != names_.end()) return found->second.owner;
  for (const auto& [length, rules] : prefixesByLength_) {
    if (length > name.size()) continue;
    if (const auto found = rules.find(name.substr(0, length)); found != rules.end())
      return found->second.owner;
  }
  return std::nullopt;
}

bool NameReservations::mayPublish(uid_t user, std::string_view name) const {
  if (user == kRoot || count() == 0) return true;
  const auto owner = ownerOf(name);
  return !owner || *owner == user;
}

}  // namespace keel
