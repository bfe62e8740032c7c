// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list_forms.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/bundle/property_list.h"

// The format: the magic "bplist00", the objects, a table of their offsets, and a trailer of 32
// bytes with the table's offset and entry width. Integers are big-endian. An object begins with a
// byte that has its kind in the upper nibble and its size in the lower; 15 means that the size
// follows as an integer object. Arrays and dictionaries refer to objects by index. Any number of
// them may refer to the same object, which is once in the file and many times in the value; in a
// hostile file even to themselves.

namespace keel {

namespace {

using Bytes = std::span<const std::byte>;

constexpr std::string_view kAnyMagic = "bplist", kMagic = "bplist00";
constexpr std::size_t kTrailerBytes = 32;
// Dates count from 2001-01-01T00:00:00Z.
constexpr double kDateOrigin = 978307200;

std::uint64_t bigEndian(Bytes bytes) {
  std::uint64_t number = 0;
  for (const std::byte byte : bytes) number = number << 8 | std::to_integer<std::uint64_t>(byte);
  return number;
}

std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void appendUtf8(std::string& text, std::uint32_t character) {
  const auto put = [&text](std::uint32_t byte) {
    text += static_cast<char>(static_cast<unsigned char>(byte));
  };
  if (character < 0x80) return put(character);
  if (character < 0x800) {
    put(0xc0 | character >> 6);
  } else {
    if (character < 0x10000) {
      put(0xe0 | character >> 12);
    } else {
      put(0xf0 | character >> 18);
      put(0x80 | (character >> 12 & 0x3f));
    }
    put(0x80 | (character >> 6 & 0x3f));
  }
  put(0x80 | (character & 0x3f));
}

// Returns the text in UTF-8; nothing for an unpaired surrogate.
std::optional<std::string> textOfUtf16(Bytes bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 2) {
    auto unit = static_cast<std::uint32_t>(bigEndian(bytes.subspan(at, 2)));
    if (unit >= 0xd800 && unit < 0xe000) {
      at += 2;
      const std::uint64_t low = at < bytes.size() ? bigEndian(bytes.subspan(at, 2)) : 0;
      if (unit >= 0xdc00 || low < 0xdc00 || low >= 0xe000) return {};
      unit = 0x10000 + ((unit - 0xd800) << 10) + (static_cast<std::uint32_t>(low) - 0xdc00);
    }
    appendUtf8(text, unit);
  }
  return text;
}

class Reader {
 public:
  explicit Reader(Bytes file) : file_(file) {}
  std::expected<Value, std::string> decode();

 private:
  bool readTrailer();
  // Each returns nothing once it has refused the file.
  std::optional<Value> object(std::uint64_t number);
  std::optional<Value> contents(unsigned kind, unsigned low);
  std::optional<Value> scalar(unsigned kind, unsigned low);
  std::optional<Value> integer(unsigned low);
  std::optional<Value> real(unsigned low);
  std::optional<Value> date();
  std::optional<Value> text(unsigned kind, std::uint64_t count);
  std::optional<Value> list(std::uint64_t count);
  std::optional<Value> map(std::uint64_t count);
  std::optional<std::string> key(std::uint64_t number);

  // Reads the size in `low`, or the one that follows.
  std::optional<std::uint64_t> count(unsigned low);
  // Reads the next `count` items of `width` bytes.
  std::optional<Bytes> take(std::uint64_t count, std::size_t width);
  std::uint64_t reference(Bytes references, std::size_t index) const;
  // Charges that much to the value's memory limit.
  bool charge(std::uint64_t count, std::size_t bytes);
  std::nullopt_t refuse(std::string_view reason);

  const Bytes file_;
  Bytes objects_;  // from the beginning of the file to the table
  Bytes table_;
  std::size_t offsetBytes_ = 0;
  std::size_t referenceBytes_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t topObject_ = 0;

  std::size_t at_ = 0;                 // offset of the next byte in objects_
  std::vector<std::uint64_t> within_;  // the object being read and those around it
  std::size_t remainingBytes_ = kPropertyListValueBytes;
  std::string fault_;
};

std::expected<Value, std::string> Reader::decode() {
  std::optional<Value> value;
  if (readTrailer()) value = object(topObject_);
  if (!value) return std::unexpected(std::move(fault_));
  return std::move(*value);
}

bool Reader::readTrailer() {
  if (asText(file_.first(std::min(file_.size(), kMagic.size()))) != kMagic) {
    fault_ = "a binary property list of an unknown version";
    return false;
  }
  if (file_.size() < kMagic.size() + kTrailerBytes) {
    fault_ = "cut off before its trailer";
    return false;
  }
  const std::size_t end = file_.size() - kTrailerBytes;
  const Bytes trailer = file_.subspan(end);
  offsetBytes_ = std::to_integer<std::size_t>(trailer[6]);
  referenceBytes_ = std::to_integer<std::size_t>(trailer[7]);
  objectCount_ = bigEndian(trailer.subspan(8, 8));
  topObject_ = bigEndian(trailer.subspan(16, 8));
  const std::uint64_t table = bigEndian(trailer.subspan(24, 8));
  const bool widthsFit =
      offsetBytes_ >= 1 && offsetBytes_ <= 8 && referenceBytes_ >= 1 && referenceBytes_ <= 8;
  if (!widthsFit || table < kMagic.size() || table > end || objectCount_ > end ||
      objectCount_ * offsetBytes_ != end - table) {
    fault_ = "its trailer does not fit the file";
    return false;
  }
  objects_ = file_.first(static_cast<std::size_t>(table));
  table_ = file_.subspan(static_cast<std::size_t>(table), end - static_cast<std::size_t>(table));
  return true;
}

std::optional<Value> Reader::object(std::uint64_t number) {
  if (number >= objectCount_) return refuse(fmt::format("there is no object {}", number));
  if (std::ranges::find(within_, number) != within_.end())
    return refuse(fmt::format("object {} holds itself", number));
  const std::uint64_t offset =
      bigEndian(table_.subspan(static_cast<std::size_t>(number) * offsetBytes_, offsetBytes_));
  if (offset < kMagic.size() || offset >= objects_.size())
    return refuse(fmt::format("object {} lies outside", number));
  const std::size_t before = std::exchange(at_, static_cast<std::size_t>(offset));
  within_.push_back(number);
  const auto head = std::to_integer<unsigned>(objects_[at_++]);
  auto value = contents(head >> 4, head & 0xf);
  // After a refusal within_ has the position.
  if (value) within_.pop_back();
  at_ = before;
  return value;
}

std::optional<Value> Reader::contents(unsigned kind, unsigned low) {
  if (kind < 4) return scalar(kind, low);
  const auto size = count(low);
  if (!size) return {};
  switch (kind) {
    case 0x4: {
      const auto bytes = take(*size, 1);
      if (!bytes || !charge(*size, 1)) return {};
      return Value(Value::Bytes(bytes->begin(), bytes->end()));
    }
    case 0x5:
    case 0x6:
      return text(kind, *size);
    case 0xa:
      return list(*size);
    case 0xd:
      return map(*size);
    default:
      return refuse("of a kind that property lists do not have");
  }
}

std::optional<Value> Reader::scalar(unsigned kind, unsigned low) {
  if (kind == 0 && (low == 8 || low == 9)) return Value(low == 9);
  if (kind == 1 && low <= 4) return integer(low);
  if (kind == 2 && (low == 2 || low == 3)) return real(low);
  if (kind == 3 && low == 3) return date();
  return refuse("of a kind that property lists do not have");
}

// Unsigned up to 4 bytes, signed with 8 and, for larger values, 16 bytes.
std::optional<Value> Reader::integer(unsigned low) {
  const auto bytes = take(1, std::size_t{1} << low);
  if (!bytes) return {};
  if (low < 3) return Value(bigEndian(*bytes));
  if (low == 3) return Value(static_cast<std::int64_t>(bigEndian(*bytes)));
  const std::uint64_t upper = bigEndian(bytes->first(8)), lower = bigEndian(bytes->last(8));
  if (upper == 0) return Value(lower);
  if (upper == ~std::uint64_t{0} && static_cast<std::int64_t>(lower) < 0)
    return Value(static_cast<std::int64_t>(lower));
  return refuse("an integer beyond 64 bits");
}

std::optional<Value> Reader::real(unsigned low) {
  const auto bytes = take(1, std::size_t{1} << low);
  if (!bytes) return {};
  const std::uint64_t bits = bigEndian(*bytes);
  if (low == 2)
    return Value(static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits))));
  return Value(std::bit_cast<double>(bits));
}

std::optional<Value> Reader::date() {
  const auto bytes = take(1, 8);
  if (!bytes) return {};
  const double seconds = std::bit_cast<double>(bigEndian(*bytes)) + kDateOrigin;
  if (!std::isfinite(seconds)) return refuse("a date without a time");
  return Value(Date{seconds});
}

std::optional<Value> Reader::text(unsigned kind, std::uint64_t count) {
  const auto bytes = take(count, kind == 0x6 ? 2 : 1);
  if (!bytes || !charge(bytes->size(), 2)) return {};
  if (kind == 0x6) {
    auto decoded = textOfUtf16(*bytes);
    if (!decoded) return refuse("text that is not UTF-16");
    return Value(std::move(*decoded));
  }
  if (std::ranges::any_of(*bytes, [](std::byte byte) { return byte >= std::byte{0x80}; })) {
    return refuse("text that is not ASCII");
  }
  return Value(asText(*bytes));
}

std::optional<Value> Reader::list(std::uint64_t count) {
  const auto references = take(count, referenceBytes_);
  if (!references || !charge(count, sizeof(Value))) return {};
  if (within_.size() > kPropertyListDepth)
    return refuse(fmt::format("nested more than {} deep", kPropertyListDepth));
  Value::List items;
  items.reserve(static_cast<std::size_t>(count));
  for (std::size_t index = 0; index < count; ++index) {
    auto item = object(reference(*references, index));
    if (!item) return {};
    items.push_back(std::move(*item));
  }
  return Value(std::move(items));
}

// All keys come first, then all values.
std::optional<Value> Reader::map(std::uint64_t count) {
  const auto keys = take(count, referenceBytes_);
  if (!keys) return {};
  const auto values = take(count, referenceBytes_);
  if (!values || !charge(count, sizeof(Member))) return {};
  if (within_.size() > kPropertyListDepth)
    return refuse(fmt::format("nested more than {} deep", kPropertyListDepth));
  Value::Map members;
  members.reserve(static_cast<std::size_t>(count));
  for (std::size_t index = 0; index < count; ++index) {
    auto name = key(reference(*keys, index));
    if (!name) return {};
    auto value = object(reference(*values, index));
    if (!value) return {};
    members.push_back({std::move(*name), std::move(*value)});
  }
  if (const std::string* twice = findDuplicateKey(members)) {
    return refuse(fmt::format("key \"{}\" twice", excerptOf(*twice)));
  }
  return Value(std::move(members));
}

std::optional<std::string> Reader::key(std::uint64_t number) {
  const auto value = object(number);
  if (!value) return {};
  if (const auto* text = value->as<std::string>()) return *text;
  return refuse("a key that is no text");
}

std::optional<std::uint64_t> Reader::count(unsigned low) {
  if (low != 0xf) return low;
  const auto head = take(1, 1);
  if (!head) return {};
  const auto width = std::to_integer<unsigned>(head->front());
  if (width < 0x10 || width > 0x13) return refuse("a size that is no integer");
  const auto size = take(1, std::size_t{1} << (width & 0xf));
  return size ? std::optional(bigEndian(*size)) : std::nullopt;
}

std::optional<Bytes> Reader::take(std::uint64_t count, std::size_t width) {
  const std::size_t left = objects_.size() - at_;
  if (count > left / width) return refuse("reaches beyond the objects");
  const Bytes taken = objects_.subspan(at_, static_cast<std::size_t>(count) * width);
  at_ += taken.size();
  return taken;
}

std::uint64_t Reader::reference(Bytes references, std::size_t index) const {
  return bigEndian(references.subspan(index * referenceBytes_, referenceBytes_));
}

bool Reader::charge(std::uint64_t count, std::size_t bytes) {
  if (count > remainingBytes_ / bytes) {
    refuse(fmt::format("its value takes more than {} bytes", kPropertyListValueBytes));
    return false;
  }
  remainingBytes_ -= static_cast<std::size_t>(count) * bytes;
  return true;
}

std::nullopt_t Reader::refuse(std::string_view reason) {
  if (fault_.empty())
    fault_ = within_.empty() ? std::string(reason)
                             : fmt::format("object {}: {}", within_.back(), reason);
  return std::nullopt;
}

}  // namespace

bool looksLikeBinaryPropertyList(std::span<const std::byte> bytes) {
  return asText(bytes).starts_with(kAnyMagic);
}

std::expected<Value, std::string> decodeBinaryPropertyList(std::span<const std::byte> bytes) {
  return Reader(bytes).decode();
}

}  // namespace keel
