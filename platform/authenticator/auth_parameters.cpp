// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/auth_parameters.h"

#include <algorithm>
#include <utility>

namespace keel {

namespace {

bool isBlank(char letter) {
  return letter == ' ' || letter == '\t';
}

char inLowerCase(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool isTokenLetter(char letter) {
  constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
  return (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z') ||
         (letter >= 'a' && letter <= 'z') || kOthers.find(letter) != std::string_view::npos;
}

bool isControl(char letter) {
  const auto byte = static_cast<unsigned char>(letter);
  return (byte < 0x20 && letter != '\t') || byte == 0x7f;
}

// Consumes tokens from the front of a text.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool atEnd() const { return text_.empty(); }

  void skipBlanks() {
    while (!atEnd() && isBlank(text_.front())) text_.remove_prefix(1);
  }

  bool take(char letter) {
    if (atEnd() || text_.front() != letter) return false;
    text_.remove_prefix(1);
    return true;
  }

  // Returns nothing if the text does not start with a token.
  std::optional<std::string> token() {
    const auto end = std::ranges::find_if_not(text_, isTokenLetter);
    if (end == text_.begin()) return std::nullopt;
    std::string token(text_.begin(), end);
    text_.remove_prefix(token.size());
    return token;
  }

  // Reads from after the opening quote up to the closing one.
  std::optional<std::string> restOfQuoted() {
    std::string value;
    while (!atEnd()) {
      if (take('"')) return value;
      take('\\');
      if (atEnd() || isControl(text_.front())) return std::nullopt;
      value += text_.front();
      text_.remove_prefix(1);
    }
    return std::nullopt;
  }

  std::optional<std::string> value() { return take('"') ? restOfQuoted() : token(); }

 private:
  std::string_view text_;
};

}  // namespace

std::optional<std::string_view> afterScheme(std::string_view text, std::string_view scheme) {
  if (text.size() <= scheme.size() || text[scheme.size()] != ' ') return std::nullopt;
  if (!std::ranges::equal(text.substr(0, scheme.size()), scheme, {}, inLowerCase, inLowerCase))
    return std::nullopt;
  text.remove_prefix(std::min(text.find_first_not_of(' ', scheme.size()), text.size()));
  return text;
}

std::string quotedString(std::string_view text) {
  std::string result = "\"";
  for (const char letter : text) {
    if (letter == '"' || letter == '\\') result += '\\';
    result += letter;
  }
  return result + '"';
}

std::optional<AuthParameters> AuthParameters::parse(std::string_view text) {
  AuthParameters parameters;
  Reader reader(text);
  do {
    reader.skipBlanks();
    auto name = reader.token();
    if (!name) return std::nullopt;
    std::ranges::transform(*name, name->begin(), inLowerCase);
    reader.skipBlanks();
    if (!reader.take('=')) return std::nullopt;
    reader.skipBlanks();
    auto value = reader.value();
    if (!value) return std::nullopt;
    const bool isNew = parameters.valuesByName_.emplace(std::move(*name), std::move(*value)).second;
    if (!isNew || parameters.valuesByName_.size() > kMaxCount) return std::nullopt;
    reader.skipBlanks();
  } while (reader.take(','));
  if (!reader.atEnd()) return std::nullopt;
  return parameters;
}

const std::string* AuthParameters::find(std::string_view name) const {
  const auto found = valuesByName_.find(name);
  return found == valuesByName_.end() ? nullptr : &found->second;
}

}  // namespace keel
