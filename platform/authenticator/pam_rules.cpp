// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/pam_rules.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <optional>
#include <sstream>

namespace keel {

namespace {

bool isSameWord(std::string_view left, std::string_view right) {
  const auto lower = [](unsigned char letter) { return std::tolower(letter); };
  return std::ranges::equal(left, right, {}, lower, lower);
}

// Returns the next rule without its comment, with continuation lines joined.
std::optional<std::string> nextRule(std::istream& file) {
  std::string rule;
  std::string line;
  bool isAny = false;
  while (std::getline(file, line)) {
    isAny = true;
    line.erase(std::min(line.find('#'), line.size()));
    const bool goesOn = line.ends_with('\\');
    if (goesOn) line.back() = ' ';
    rule += line;
    if (!goesOn) break;
  }
  return isAny ? std::optional(rule) : std::nullopt;
}

struct Rule {
  explicit Rule(const std::string& text) {
    std::istringstream words(text);
    words >> type >> control;
    // A bracketed control may contain blanks.
    if (control.starts_with('[') && !control.ends_with(']')) std::getline(words, control, ']');
    words >> module;
  }

  std::string type;
  std::string control;
  std::string module;  // or the included file
};

}  // namespace

bool PamRules::has(const std::string& service, std::string_view type) const {
  std::size_t filesLeft = kFileCount;
  return has(service, type, 1, filesLeft);
}

bool PamRules::has(const std::string& service, std::string_view type, std::size_t depth,
                   std::size_t& filesLeft) const {
  const bool isPlain =
      !service.empty() && !service.starts_with('.') && service.find('/') == std::string::npos;
  if (!isPlain || depth > kDepth || filesLeft == 0) return false;
  --filesLeft;
  std::ifstream file(directory_ + "/" + service);
  while (const auto text = nextRule(file)) {
    const Rule rule(*text);
    if (isSameWord(rule.type, "@include")) {
      if (has(rule.control, type, depth + 1, filesLeft)) return true;
    } else if (isSameWord(rule.type, type)) {
      const bool includes =
          isSameWord(rule.control, "include") || isSameWord(rule.control, "substack");
      if (includes ? has(rule.module, type, depth + 1, filesLeft) : !rule.module.empty())
        return true;
    }
  }
  return false;
}

}  // namespace keel
