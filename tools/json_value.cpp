// SPDX-License-Identifier: Apache-2.0
#include "tools/json_value.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "runtime/foundation/base64.h"
#include "tools/json_builder.h"

namespace keel {

namespace {

// Returns true if a map with this only key would be read as an escape.
bool isReserved(std::string_view key) {
  return key == "$date" || key == "$data" || key == "$error" || key == "$real" || key == "$map";
}

class JsonWriter {
 public:
  explicit JsonWriter(JsonLetters letters) : letters_(letters) {}
  std::string take() { return std::move(json_); }

  void operator()(std::nullptr_t) { json_ += "null"; }
  void operator()(bool boolean) { json_ += boolean ? "true" : "false"; }
  void operator()(std::int64_t integer) { json_ += fmt::format("{}", integer); }
  void operator()(std::uint64_t integer) { json_ += fmt::format("{}", integer); }
  void operator()(double real) {
    if (std::isfinite(real)) {
      json_ += nlohmann::json(real).dump();
    } else {
      json_ += std::isnan(real) ? R"({"$real":"NaN"})"
               : real > 0       ? R"({"$real":"Infinity"})"
                                : R"({"$real":"-Infinity"})";
    }
  }
  void operator()(const std::string& text) { json_ += jsonOfText(text, letters_); }
  void operator()(const Value::Bytes& bytes) {
    json_ += R"({"$data":")" + encodeBase64(bytes) + "\"}";
  }
  void operator()(Date date) {
    json_ += R"({"$date":)";
    if (const auto whole = date.wholeSeconds()) {
      (*this)(*whole);
    } else {
      (*this)(date.secondsSinceEpoch);
    }
    json_ += "}";
  }
  void operator()(const Error& error) {
    json_ +=
        R"({"$error":{"domain":)" + jsonOfText(error.domain().view(), letters_) + R"(,"code":)";
    (*this)(error.code());
    json_ += R"(,"userInfo":)";
    write(error.userInfo().value());
    json_ += "}}";
  }
  void operator()(const Value::List& list) {
    json_ += '[';
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (i > 0) json_ += ',';
      write(list[i]);
    }
    json_ += ']';
  }
  void operator()(const Value::Map& map) {
    // Of duplicate keys the last one counts.
    std::unordered_map<std::string_view, const Member*> last;
    for (const Member& member : map) last[member.key] = &member;
    const bool wrapped = last.size() == 1 && isReserved(map.front().key);
    json_ += wrapped ? R"({"$map":{)" : "{";
    bool first = true;
    for (const Member& member : map) {
      if (last[member.key] != &member) continue;
      if (!std::exchange(first, false)) json_ += ',';
      json_ += jsonOfText(member.key, letters_) + ':';
      write(member.value);
    }
    json_ += wrapped ? "}}" : "}";
  }
  void write(const Value& value) { std::visit(*this, value.held()); }

 private:
  const JsonLetters letters_;
  std::string json_;
};

}  // namespace

std::string jsonOf(const Value& value, JsonLetters letters) {
  JsonWriter writer(letters);
  writer.write(value);
  return writer.take();
}

std::string jsonOfText(std::string_view text, JsonLetters letters) {
  return nlohmann::json(text).dump(-1, ' ', letters == JsonLetters::ascii,
                                   nlohmann::json::error_handler_t::replace);
}

std::expected<Value, std::string> valueOfJson(std::string_view json) {
  JsonBuilder builder;
  nlohmann::json::sax_parse(json, &builder);
  return builder.take();
}

}  // namespace keel
