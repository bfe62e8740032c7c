// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/error.h"

#include <fmt/format.h>

#include <algorithm>

#include "runtime/foundation/cbor_cursor.h"
#include "runtime/foundation/utf8.h"
#include "runtime/foundation/value.h"

namespace keel {

namespace {

// Returns the text under `wanted`, or an empty one. Does not decode the map: errors are logged more
// often than taken apart.
std::string_view textOf(const Dictionary& dictionary, std::string_view wanted) {
  cbor::Cursor cursor(dictionary.encoded());
  std::uint64_t pairCount = 0;
  cursor.map(pairCount);
  std::string_view found;
  for (; pairCount > 0; --pairCount) {
    std::string_view key, text;
    if (!cursor.text(key)) return {};
    const bool isText = cursor.text(text);
    if (!isText && !cursor.item(cbor::kDepthCapacity)) return {};
    if (key == wanted) found = text;
  }
  return found;
}

}  // namespace

struct Error::Body {
  String domain;
  std::int64_t code;
  Dictionary userInfo;
};

Error::Error(String domain, std::int64_t code, Dictionary userInfo)
    : body_(std::make_shared<const Body>(domain.isNull() ? String("") : std::move(domain), code,
                                         std::move(userInfo))) {}

String Error::domain() const {
  return body_ ? body_->domain : String();
}
std::int64_t Error::code() const {
  return body_ ? body_->code : 0;
}
Dictionary Error::userInfo() const {
  return body_ ? body_->userInfo : Dictionary();
}

std::string Error::description() const {
  if (!body_) return "(null)";
  const std::string_view text = textOf(body_->userInfo, NSLocalizedDescriptionKey);
  const std::string identity = fmt::format("{} error {}", body_->domain.view(), body_->code);
  return text.empty() ? identity : fmt::format("{} ({})", text, identity);
}

Error describedError(std::string_view domain, std::int64_t code, std::string description) {
  if (!isUtf8(description)) {
    std::ranges::replace_if(
        description, [](char letter) { return static_cast<unsigned char>(letter) >= 0x80; }, '?');
  }
  const std::string key(NSLocalizedDescriptionKey);
  return Error(String(domain), code, Dictionary(Value::map({{key, std::move(description)}})));
}

bool operator==(const Error& left, const Error& right) {
  if (left.body_ == right.body_) return true;
  if (!left.body_ || !right.body_) return false;
  return left.body_->code == right.body_->code && left.body_->domain == right.body_->domain &&
         left.body_->userInfo == right.body_->userInfo;
}

}  // namespace keel
