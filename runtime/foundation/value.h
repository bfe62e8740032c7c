// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/date.h"
#include "runtime/foundation/error.h"

namespace keel {

struct Member;

// A decoded value of any kind that may occur in published data: what programs build and inspect. A
// plain value: copies are deep. Maps keep the order of their members; of duplicate keys the last
// one counts.
class Value {
 public:
  using Bytes = std::vector<std::byte>;
  using List = std::vector<Value>;
  using Map = std::vector<Member>;

  Value();
  Value(const Value& other);
  Value(Value&& other) noexcept;
  Value& operator=(const Value& other);
  Value& operator=(Value&& other) noexcept;
  ~Value();

  Value(std::nullptr_t);
  Value(bool boolean);
  Value(int integer);
  Value(unsigned integer);
  Value(std::int64_t integer);
  // Numbers up to INT64_MAX are held as std::int64_t, so that equal numbers are equal values; those
  // above stay std::uint64_t.
  Value(std::uint64_t integer);
  // Converts every other integral type to the one of these two that has its sign. A char is a
  // number.
  template <std::integral Integer>
    requires(sizeof(Integer) <= sizeof(std::int64_t))
  Value(Integer integer)
      : Value(
            static_cast<std::conditional_t<std::is_signed_v<Integer>, std::int64_t, std::uint64_t>>(
                integer)) {}
  Value(double real);
  Value(const char* text);
  Value(std::string_view text);
  Value(std::string text);
  Value(Bytes bytes);
  Value(Date date);
  Value(List list);
  Value(Map map);
  // A null error becomes null.
  Value(Error error);

  // Builds a map from pairs: Value::map({{"host", "a"}, {"port", 80}}).
  static Value map(std::initializer_list<Member> members);
  static Value list(std::initializer_list<Value> items);

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(held_); }
  bool isMap() const { return std::holds_alternative<Map>(held_); }
  bool isList() const { return std::holds_alternative<List>(held_); }

  // Returns the value as that kind, or null if it is of another. Borrowed.
  template <class Kind>
  const Kind* as() const {
    return std::get_if<Kind>(&held_);
  }

  // Returns the member of that key, or null if this is no map or has no such key. Borrowed.
  const Value* find(std::string_view key) const;
  // Returns the text of member `key`, or `otherwise` if there is no such text.
  std::string_view textOf(std::string_view key, std::string_view otherwise = {}) const;

  // Returns one line in CBOR's diagnostic notation (RFC 8949, section 8), dates as tag 1; for logs
  // and tests.
  std::string description() const;

  friend bool operator==(const Value& left, const Value& right);

  using Held = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double, std::string,
                            Bytes, Date, List, Map, Error>;
  const Held& held() const { return held_; }

 private:
  Held held_;
};

// A key and its value.
struct Member {
  std::string key;
  Value value;
  friend bool operator==(const Member&, const Member&) = default;
};

// Defined here, where every alternative of the variant is complete.
inline Value::Value() = default;
inline Value::Value(const Value& other) = default;
inline Value::Value(Value&& other) noexcept = default;
inline Value& Value::operator=(const Value& other) = default;
inline Value& Value::operator=(Value&& other) noexcept = default;
inline Value::~Value() = default;
inline Value::Value(std::nullptr_t) {}
inline Value::Value(bool boolean) : held_(boolean) {}
inline Value::Value(int integer) : held_(std::int64_t{integer}) {}
inline Value::Value(unsigned integer) : held_(std::int64_t{integer}) {}
inline Value::Value(std::int64_t integer) : held_(integer) {}
inline Value::Value(double real) : held_(real) {}
inline Value::Value(const char* text) : held_(std::string(text)) {}
inline Value::Value(std::string_view text) : held_(std::string(text)) {}
inline Value::Value(std::string text) : held_(std::move(text)) {}
inline Value::Value(Bytes bytes) : held_(std::move(bytes)) {}
inline Value::Value(Date date) : held_(date) {}
inline Value::Value(List list) : held_(std::move(list)) {}
inline Value::Value(Map map) : held_(std::move(map)) {}
inline Value Value::map(std::initializer_list<Member> members) {
  return Value(Map(members));
}
inline Value Value::list(std::initializer_list<Value> items) {
  return Value(List(items));
}
inline bool operator==(const Value& left, const Value& right) {
  return left.held_ == right.held_;
}

}  // namespace keel
