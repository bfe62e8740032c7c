// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_set>
#include <vector>

#include "runtime/foundation/value.h"

namespace keel {

// Builds a Value from the events of the JSON parser. The parser's own tree would lose the order of
// members and convert integers out of range.
class JsonBuilder final : public nlohmann::json::json_sax_t {
 public:
  std::expected<Value, std::string> take();

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(std::int64_t value) override { return add(value); }
  bool number_unsigned(std::uint64_t value) override { return add(value); }
  bool number_float(double value, const std::string& text) override;
  bool string(std::string& value) override { return add(std::move(value)); }
  bool binary(nlohmann::json::binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Value(Value::Map())); }
  bool start_array(std::size_t) override { return open(Value(Value::List())); }
  bool key(std::string& key) override;
  bool end_object() override;
  bool end_array() override;
  bool parse_error(std::size_t position, const std::string& token,
                   const nlohmann::detail::exception& fault) override;

 private:
  // An incomplete map or list.
  struct Open {
    bool isMap;
    Value::Map map;
    Value::List list;
    std::unordered_set<std::string> keys;
  };

  bool fail(std::string why);
  bool add(Value value);
  bool open(Value empty);
  // Returns true if the next value is the first in what may become {"$map": ...}: the meaning of a
  // map there is known only at its end.
  bool isUndecided() const {
    return !open_.empty() && open_.back().map.size() == 1 && open_.back().map[0].key == "$map";
  }

  std::vector<Open> open_;
  Value root_;
  std::string fault_;
};

}  // namespace keel
