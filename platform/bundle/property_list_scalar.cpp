// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list_scalar.h"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <string>

#include "runtime/foundation/base64.h"

namespace keel {

namespace {

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kPropertyListSpace);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(kPropertyListSpace) + 1 - first);
}

// Returns the number in `text`, which must be digits only.
template <class Number>
std::optional<Number> wholeNumber(std::string_view text, int base) {
  Number number{};
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (failure != std::errc() || end != text.data() + text.size()) return {};
  return number;
}

bool hasForm(std::string_view text, std::string_view form) {
  if (text.size() != form.size()) return false;
  for (std::size_t at = 0; at < form.size(); ++at) {
    const bool fits = form[at] == '0' ? text[at] >= '0' && text[at] <= '9' : text[at] == form[at];
    if (!fits) return false;
  }
  return true;
}

}  // namespace

std::optional<Value> integerOfText(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('-')) {
    const auto number = wholeNumber<std::int64_t>(text, 10);
    return number ? std::optional<Value>(*number) : std::nullopt;
  }
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  if (text.starts_with('+')) text.remove_prefix(hexadecimal ? 0 : 1);
  const auto number = wholeNumber<std::uint64_t>(text, hexadecimal ? 16 : 10);
  return number ? std::optional<Value>(*number) : std::nullopt;
}

std::optional<Value> realOfText(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return {};
  }
  // The library also accepts a NaN with a payload, "nan(...)".
  if (text.find('(') != text.npos) return {};
  double number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure != std::errc() || end != text.data() + text.size()) return {};
  return number;
}

std::optional<Value> dateOfText(std::string_view text) {
  namespace chrono = std::chrono;
  text = trimmed(text);
  if (!hasForm(text, "0000-00-00T00:00:00Z")) return {};
  const auto part = [text](std::size_t at, std::size_t size) {
    return wholeNumber<unsigned>(text.substr(at, size), 10).value();
  };
  const chrono::year_month_day date(chrono::year(static_cast<int>(part(0, 4))),
                                    chrono::month(part(5, 2)), chrono::day(part(8, 2)));
  const unsigned hour = part(11, 2), minute = part(14, 2), second = part(17, 2);
  if (!date.ok() || date.year() < chrono::year(1) || hour > 23 || minute > 59 || second > 59)
    return {};
  const auto point = chrono::sys_days(date) + chrono::hours(hour) + chrono::minutes(minute) +
                     chrono::seconds(second);
  return Date{chrono::duration<double>(point.time_since_epoch()).count()};
}

std::optional<Value> dataOfText(std::string_view text) {
  std::string letters;
  letters.reserve(text.size());
  for (const char letter : text) {
    if (kPropertyListSpace.find(letter) == kPropertyListSpace.npos) letters += letter;
  }
  auto bytes = decodeBase64(letters);
  return bytes ? std::optional<Value>(std::move(*bytes)) : std::nullopt;
}

}  // namespace keel
