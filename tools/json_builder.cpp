// SPDX-License-Identifier: Apache-2.0
#include "tools/json_builder.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <utility>

#include "client/shown_text.h"
#include "runtime/foundation/base64.h"

namespace keel {

namespace {

constexpr std::size_t kMaximumLevels = 200;

using Meaning = std::expected<Value, std::string>;

Meaning dateOf(const Value& seconds) {
  if (const auto* whole = seconds.as<std::int64_t>())
    return Value(Date{static_cast<double>(*whole)});
  if (const auto* real = seconds.as<double>(); real != nullptr && std::isfinite(*real))
    return Value(Date{*real});
  return std::unexpected("\"$date\" takes a number of seconds since 1970-01-01T00:00:00Z");
}

Meaning dataOf(const Value& base64) {
  const auto* text = base64.as<std::string>();
  auto bytes = text == nullptr ? std::nullopt : decodeBase64(*text);
  if (!bytes) return std::unexpected("\"$data\" takes a text in base64, with padding");
  return Value(std::move(*bytes));
}

Meaning realOf(const Value& name) {
  if (name == Value("NaN")) return Value(std::numeric_limits<double>::quiet_NaN());
  if (name == Value("Infinity")) return Value(std::numeric_limits<double>::infinity());
  if (name == Value("-Infinity")) return Value(-std::numeric_limits<double>::infinity());
  return std::unexpected(R"("$real" takes "NaN", "Infinity" or "-Infinity")");
}

Meaning errorOf(const Value& parts) {
  const Value* domain = parts.find("domain");
  const Value* code = parts.find("code");
  const Value* userInfo = parts.find("userInfo");
  const auto* domainText = domain == nullptr ? nullptr : domain->as<std::string>();
  const auto* codeNumber = code == nullptr ? nullptr : code->as<std::int64_t>();
  if (domainText == nullptr || codeNumber == nullptr ||
      (userInfo != nullptr && !userInfo->isNull() && !userInfo->isMap())) {
    return std::unexpected(
        R"("$error" takes {"domain": TEXT, "code": INTEGER, "userInfo": MAP or null})");
  }
  return Value(
      Error(*domainText, *codeNumber, userInfo == nullptr ? Dictionary() : Dictionary(*userInfo)));
}

Meaning meaningOf(Value::Map map);

// Returns the map itself, after converting an undecided first member "$map".
Meaning literal(Value::Map map) {
  if (!map.empty() && map[0].key == "$map" && map[0].value.isMap()) {
    Meaning first = meaningOf(*map[0].value.as<Value::Map>());
    if (!first) return first;
    map[0].value = std::move(*first);
  }
  return Value(std::move(map));
}

// Converts a map that escapes a kind which JSON lacks; returns any other map unchanged.
Meaning meaningOf(Value::Map map) {
  if (map.size() != 1) return literal(std::move(map));
  const std::string& key = map[0].key;
  const Value& value = map[0].value;
  if (key == "$date") return dateOf(value);
  if (key == "$data") return dataOf(value);
  if (key == "$real") return realOf(value);
  if (key == "$error") return errorOf(value);
  if (key != "$map") return Value(std::move(map));
  if (!value.isMap()) return std::unexpected("\"$map\" takes a map");
  return literal(*value.as<Value::Map>());
}

}  // namespace

std::expected<Value, std::string> JsonBuilder::take() {
  if (!fault_.empty()) return std::unexpected(std::move(fault_));
  return std::move(root_);
}

bool JsonBuilder::fail(std::string why) {
  if (fault_.empty()) fault_ = std::move(why);
  return false;
}

bool JsonBuilder::number_float(double value, const std::string& text) {
  if (text.find_first_of(".eE") == std::string::npos) {
    return fail(fmt::format("{} is not between -2^63 and 2^64-1", shownText(text, 60)));
  }
  return add(value);
}

bool JsonBuilder::key(std::string& key) {
  Open& map = open_.back();
  if (!map.keys.insert(key).second)
    return fail(fmt::format("the key {} stands twice", quotedText(key)));
  map.map.push_back({key, nullptr});
  return true;
}

bool JsonBuilder::add(Value value) {
  if (open_.empty()) {
    root_ = std::move(value);
  } else if (open_.back().isMap) {
    open_.back().map.back().value = std::move(value);
  } else {
    open_.back().list.push_back(std::move(value));
  }
  return true;
}

bool JsonBuilder::open(Value empty) {
  if (open_.size() == kMaximumLevels)
    return fail(fmt::format("it is nested deeper than {} levels", kMaximumLevels));
  open_.push_back({empty.isMap(), {}, {}, {}});
  return true;
}

bool JsonBuilder::end_array() {
  Value list(std::move(open_.back().list));
  open_.pop_back();
  return add(std::move(list));
}

bool JsonBuilder::end_object() {
  Value::Map map = std::move(open_.back().map);
  open_.pop_back();
  if (isUndecided()) return add(Value(std::move(map)));
  auto meaning = meaningOf(std::move(map));
  return meaning ? add(std::move(*meaning)) : fail(std::move(meaning.error()));
}

bool JsonBuilder::parse_error(std::size_t position, const std::string&,
                              const nlohmann::detail::exception& fault) {
  // The parser's message begins with its own error number in brackets.
  const std::string message = fault.what();
  const std::size_t after = message.find("] ");
  return fail(
      fmt::format("not JSON at byte {}: {}", position,
                  shownText(message.substr(after == std::string::npos ? 0 : after + 2), 300)));
}

}  // namespace keel
