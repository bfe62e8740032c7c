// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/cbor_item.h"

#include <cmath>

#include "runtime/foundation/check.h"

// How an item is checked without recursion.
//
// Each open container is reduced to one number: how many items (of a map: pairs) are still to come.
// The innermost container's number lives in `left_`; those around it wait in `outer_`, one word
// each, with the lowest bit set for a map. The last item of a container closes it, and possibly its
// parents. A map's key is checked where the pair begins, so the main loop sees values only.
//
// A count is compared with the remaining bytes before it is trusted, since each item takes at least
// one. So counts never overflow, and a map that claims 2^60 pairs is refused at once.
//
// An error (tag 51741) is an array of three. Its first two items are checked on the spot; the third
// is left to the loop, inside a container that expects nothing more.

namespace keel::cbor {

namespace {

class Checker {
 public:
  Checker(const std::byte* end, std::size_t maximumDepth)
      : end_(end), maximumDepth_(maximumDepth) {}

  const std::byte* item(const std::byte* at, Fault& fault);

 private:
  const std::byte* key(const std::byte* at, Fault& fault);
  const std::byte* errorUpToUserInfo(const std::byte* at, Fault& fault);
  const std::byte* simple(const std::byte* at, Fault& fault) const;
  bool open(std::uint64_t count, bool isMap, std::size_t roomBytes, Fault& fault);
  bool closeFinished();

  const std::byte* end_;
  std::size_t maximumDepth_;
  std::size_t depth_ = 0;
  std::uint64_t left_ = 0;
  bool inMap_ = false;
  std::uint64_t outer_[kDepthCapacity];
};

inline const std::byte* refuse(Fault why, Fault& fault) {
  fault = why;
  return nullptr;
}

inline bool Checker::open(std::uint64_t count, bool isMap, std::size_t roomBytes, Fault& fault) {
  if (depth_ == maximumDepth_) return refuse(Fault::tooDeep, fault);
  if (count > (isMap ? roomBytes / 2 : roomBytes)) return refuse(Fault::truncated, fault);
  outer_[depth_++] = left_ << 1 | (inMap_ ? 1U : 0U);
  left_ = count;
  inMap_ = isMap;
  return true;
}

// Closes the containers that end here. Returns false when the outermost item has ended.
inline bool Checker::closeFinished() {
  while (left_ == 0) {
    if (depth_ == 0) return false;
    const std::uint64_t outer = outer_[--depth_];
    left_ = outer >> 1;
    inMap_ = (outer & 1) != 0;
  }
  return true;
}

inline const std::byte* Checker::key(const std::byte* at, Fault& fault) {
  if (at == end_) return refuse(Fault::truncated, fault);
  if (majorOf(*at) != Major::text) return refuse(Fault::keyNotText, fault);
  Head head;
  at = readHead(at, end_, head, fault);
  return at == nullptr ? nullptr : readText(at, end_, head.argument, fault);
}

inline const std::byte* Checker::simple(const std::byte* at, Fault& fault) const {
  const auto initial = std::to_integer<std::uint8_t>(*at);
  if (initial >= kFalse && initial <= kNull) return at + 1;
  double ignored;
  return readReal(at, end_, ignored, fault);
}

// Reads from behind the tag up to the user info, which is then a map or null if it is there at all.
const std::byte* Checker::errorUpToUserInfo(const std::byte* at, Fault& fault) {
  constexpr auto kArrayOfThree = std::byte{0x83};
  if (at == end_) return refuse(Fault::truncated, fault);
  if (*at != kArrayOfThree) return refuse(Fault::badTagContent, fault);
  ++at;
  if (!open(1, /*isMap=*/false, bytesBetween(at, end_), fault)) return nullptr;
  left_ = 0;

  if (at == end_) return refuse(Fault::truncated, fault);
  if (majorOf(*at) != Major::text) return refuse(Fault::badTagContent, fault);
  at = key(at, fault);
  if (at == nullptr) return nullptr;

  if (at == end_) return refuse(Fault::truncated, fault);
  if (majorOf(*at) > Major::negativeInteger) return refuse(Fault::badTagContent, fault);
  Head code;
  at = readHead(at, end_, code, fault);
  if (at == nullptr) return nullptr;
  if (code.argument > kInt64Limit) {
    return refuse(code.major == Major::negativeInteger ? Fault::integerRange : Fault::badTagContent,
                  fault);
  }

  if (at == end_) return refuse(Fault::truncated, fault);
  if (*at != std::byte{kNull} && majorOf(*at) != Major::map)
    return refuse(Fault::badTagContent, fault);
  return at;
}

inline const std::byte* Checker::item(const std::byte* at, Fault& fault) {
  for (;;) {
    if (at == end_) return refuse(Fault::truncated, fault);
    if (majorOf(*at) == Major::simple) {
      at = simple(at, fault);
      if (at == nullptr) return nullptr;
    } else {
      Head head;
      at = readHead(at, end_, head, fault);
      if (at == nullptr) return nullptr;
      switch (head.major) {
        case Major::unsignedInteger:
          break;
        case Major::negativeInteger:
          if (head.argument > kInt64Limit) return refuse(Fault::integerRange, fault);
          break;
        case Major::bytes:
          if (head.argument > bytesBetween(at, end_)) return refuse(Fault::truncated, fault);
          at += head.argument;
          break;
        case Major::text:
          at = readText(at, end_, head.argument, fault);
          if (at == nullptr) return nullptr;
          break;
        case Major::array:
        case Major::map:
          if (!open(head.argument, head.major == Major::map, bytesBetween(at, end_), fault))
            return nullptr;
          break;
        case Major::tag:
          if (head.argument == kErrorTag) {
            at = errorUpToUserInfo(at, fault);
            if (at == nullptr) return nullptr;
            continue;
          }
          if (head.argument != kDateTag) return refuse(Fault::unknownTag, fault);
          double ignored;
          at = readDate(at, end_, ignored, fault);
          if (at == nullptr) return nullptr;
          break;
        case Major::simple:
          break;
      }
    }

    if (!closeFinished()) return at;
    --left_;
    if (inMap_) {
      at = key(at, fault);
      if (at == nullptr) return nullptr;
    }
  }
}

}  // namespace

const std::byte* readItem(const std::byte* at, const std::byte* end, std::size_t maximumDepth,
                          Fault& fault) {
  KEEL_CHECK(maximumDepth <= kDepthCapacity);
  return Checker(end, maximumDepth).item(at, fault);
}

const std::byte* readDate(const std::byte* at, const std::byte* end, double& seconds,
                          Fault& fault) {
  if (at == end) return refuse(Fault::truncated, fault);
  switch (majorOf(*at)) {
    case Major::unsignedInteger:
    case Major::negativeInteger: {
      Head head;
      at = readHead(at, end, head, fault);
      if (at == nullptr) return nullptr;
      const bool negative = head.major == Major::negativeInteger;
      if (negative && head.argument > kInt64Limit) return refuse(Fault::integerRange, fault);
      seconds = negative ? static_cast<double>(-1 - static_cast<std::int64_t>(head.argument))
                         : static_cast<double>(head.argument);
      return at;
    }
    case Major::simple: {
      const auto initial = std::to_integer<std::uint8_t>(*at);
      if (initial >= kFalse && initial <= kNull) return refuse(Fault::badTagContent, fault);
      at = readReal(at, end, seconds, fault);
      if (at != nullptr && !std::isfinite(seconds)) return refuse(Fault::badTagContent, fault);
      return at;
    }
    default:
      return refuse(Fault::badTagContent, fault);
  }
}

std::string_view describe(Fault fault) {
  switch (fault) {
    case Fault::truncated:
      return "the bytes end before the item does";
    case Fault::trailingBytes:
      return "bytes follow the item";
    case Fault::notShortest:
      return "a number or length is not in its shortest form";
    case Fault::indefiniteLength:
      return "an item has an indefinite length";
    case Fault::reservedHead:
      return "an item begins with a reserved byte";
    case Fault::simpleValue:
      return "a simple value is none of false, true and null";
    case Fault::integerRange:
      return "a negative integer is below -2^63";
    case Fault::badUtf8:
      return "a text is not valid UTF-8";
    case Fault::keyNotText:
      return "a map's key is not a text";
    case Fault::unknownTag:
      return "a tag is neither 1 (date) nor 51741 (error)";
    case Fault::badTagContent:
      return "a date or error has the wrong content";
    case Fault::tooDeep:
      return "arrays and maps are nested too deeply";
  }
  return "unknown fault";
}

}  // namespace keel::cbor
