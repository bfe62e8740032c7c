// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/value.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <limits>

namespace keel {

namespace {

// Writes the diagnostic notation of the kind that a Value holds.
class Notation {
 public:
  explicit Notation(std::string& output) : output_(output) {}

  void operator()(std::nullptr_t) const { output_ += "null"; }
  void operator()(bool boolean) const { output_ += boolean ? "true" : "false"; }
  void operator()(std::int64_t integer) const {
    fmt::format_to(std::back_inserter(output_), "{}", integer);
  }
  void operator()(std::uint64_t integer) const {
    fmt::format_to(std::back_inserter(output_), "{}", integer);
  }
  void operator()(double real) const;
  void operator()(std::string_view text) const;
  void operator()(const Value::Bytes& bytes) const;
  void operator()(Date date) const;
  void operator()(const Value::List& list) const;
  void operator()(const Value::Map& map) const;
  void operator()(const Error& error) const;

 private:
  void value(const Value& held) const { std::visit(*this, held.held()); }
  void character(std::string_view text, std::size_t& index) const;

  std::string& output_;
};

// Always distinguishable from an integer: 1.0, 1.0e+300, NaN, -Infinity.
void Notation::operator()(double real) const {
  if (real != real) {
    output_ += "NaN";
  } else if (std::abs(real) == std::numeric_limits<double>::infinity()) {
    output_ += real < 0 ? "-Infinity" : "Infinity";
  } else {
    std::string digits = fmt::format("{}", real);
    if (digits.find('.') == digits.npos)
      digits.insert(std::min(digits.find('e'), digits.size()), ".0");
    output_ += digits;
  }
}

// Writes one ASCII character, or one byte of any other, escaped if it would end the text or affect
// a terminal.
void Notation::character(std::string_view text, std::size_t& index) const {
  constexpr std::string_view kSpecial = "\"\\\b\f\n\r\t", kLetters = "\"\\bfnrt";
  const auto byte = static_cast<unsigned char>(text[index]);
  const auto next = index + 1 < text.size() ? static_cast<unsigned char>(text[index + 1]) : 0U;
  if (const std::size_t which = kSpecial.find(text[index]); which != kSpecial.npos) {
    output_ += '\\';
    output_ += kLetters[which];
  } else if (byte < 0x20 || byte == 0x7f) {
    fmt::format_to(std::back_inserter(output_), "\\u{:04x}", byte);
  } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {
    // U+0080 to U+009F, the control characters beyond ASCII.
    fmt::format_to(std::back_inserter(output_), "\\u{:04x}", next);
    ++index;
  } else {
    output_ += text[index];
  }
}

void Notation::operator()(std::string_view text) const {
  output_ += '"';
  for (std::size_t index = 0; index < text.size(); ++index) character(text, index);
  output_ += '"';
}

void Notation::operator()(const Value::Bytes& bytes) const {
  output_ += "h'";
  for (const std::byte byte : bytes)
    fmt::format_to(std::back_inserter(output_), "{:02x}", std::to_integer<unsigned>(byte));
  output_ += '\'';
}

void Notation::operator()(Date date) const {
  output_ += "1(";
  if (const auto whole = date.wholeSeconds()) {
    (*this)(*whole);
  } else {
    (*this)(date.secondsSinceEpoch);
  }
  output_ += ')';
}

void Notation::operator()(const Value::List& list) const {
  output_ += '[';
  std::string_view separator;
  for (const Value& item : list) {
    output_ += std::exchange(separator, ", ");
    value(item);
  }
  output_ += ']';
}

void Notation::operator()(const Value::Map& map) const {
  output_ += '{';
  std::string_view separator;
  for (const Member& member : map) {
    output_ += std::exchange(separator, ", ");
    (*this)(std::string_view(member.key));
    output_ += ": ";
    value(member.value);
  }
  output_ += '}';
}

void Notation::operator()(const Error& error) const {
  output_ += "51741([";
  (*this)(error.domain().view());
  output_ += ", ";
  (*this)(error.code());
  output_ += ", ";
  value(error.userInfo().value());
  output_ += "])";
}

}  // namespace

Value::Value(std::uint64_t integer) {
  if (std::in_range<std::int64_t>(integer)) {
    held_ = static_cast<std::int64_t>(integer);
  } else {
    held_ = integer;
  }
}

Value::Value(Error error) {
  if (error) held_ = std::move(error);
}

const Value* Value::find(std::string_view key) const {
  const Map* map = as<Map>();
  if (map == nullptr) return nullptr;
  const auto last = std::find_if(map->rbegin(), map->rend(),
                                 [key](const Member& member) { return member.key == key; });
  return last == map->rend() ? nullptr : &last->value;
}

std::string_view Value::textOf(std::string_view key, std::string_view otherwise) const {
  const Value* member = find(key);
  const std::string* text = member == nullptr ? nullptr : member->as<std::string>();
  return text == nullptr ? otherwise : std::string_view(*text);
}

std::string Value::description() const {
  std::string output;
  std::visit(Notation(output), held_);
  return output;
}

}  // namespace keel
