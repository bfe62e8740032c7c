// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor_cursor.h"

namespace keel::cbor {

bool Cursor::real(double& value) {
  if (atEnd() || majorOf(*at_) != Major::simple) return false;
  Fault ignored;
  double read;
  const std::byte* after = readReal(at_, end_, read, ignored);
  if (after == nullptr) return false;
  value = read;
  at_ = after;
  return true;
}

bool Cursor::date(Date& value) {
  Cursor ahead = *this;
  std::uint64_t number;
  if (!ahead.tag(number) || number != kDateTag) return false;
  Fault ignored;
  double seconds;
  const std::byte* after = readDate(ahead.at_, end_, seconds, ignored);
  if (after == nullptr) return false;
  value = Date{seconds};
  at_ = after;
  return true;
}

bool Cursor::error(Error& value, std::size_t maximumDepth) {
  // Validated as a whole first, so nothing below can fail halfway.
  const auto whole = Cursor(*this).item(maximumDepth);
  Cursor ahead = *this;
  std::uint64_t number, count;
  std::string_view domain;
  std::int64_t code;
  if (!whole || !ahead.tag(number) || number != kErrorTag) return false;
  if (!ahead.array(count) || !ahead.text(domain) || !ahead.integer(code)) return false;
  at_ += whole->size();
  const std::span<const std::byte> userInfo(ahead.at_, at_);
  const bool none = ahead.null();
  value = Error(domain, code, none ? Dictionary() : Dictionary(Buffer::copyOf(userInfo)));
  return true;
}

std::expected<std::span<const std::byte>, Fault> Cursor::item(std::size_t maximumDepth) {
  Fault fault{};
  const std::byte* after = readItem(at_, end_, maximumDepth, fault);
  if (after == nullptr) return std::unexpected(fault);
  const std::span<const std::byte> whole(at_, after);
  at_ = after;
  return whole;
}

}  // namespace keel::cbor
