// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "bench/load/system.h"

namespace keel::bench {

// The frame at the beginning of some bytes. 0 bytes: its head is incomplete.
struct Frame {
  enum class Kind : std::uint8_t { nothing, acknowledgement, delivery, confirmation };
  std::size_t bytes = 0;
  Kind kind = Kind::nothing;
  std::size_t count = 1;
};

// Frames of this size are counted without being collected.
inline constexpr std::size_t kLargeFrameBytes = 64u << 10;

// The loop of every System::consume: `read(std::string_view) -> Frame` looks at the head of a
// frame.
template <class Read>
std::size_t consumeFrames(Session& session, std::string_view bytes, Seen& seen, Read read) {
  std::size_t place = 0;
  if (session.missingBytes > 0) {
    place = std::min(session.missingBytes, bytes.size());
    session.missingBytes -= place;
    if (session.missingBytes > 0) return place;
    ++(session.isDelivery ? seen.delivered : seen.acknowledged);
  }
  while (place < bytes.size()) {
    const Frame frame = read(bytes.substr(place));
    const std::size_t there = bytes.size() - place;
    if (frame.bytes == 0) break;
    if (frame.bytes > there) {
      if (frame.bytes < kLargeFrameBytes || frame.kind == Frame::Kind::nothing) break;
      session.missingBytes = frame.bytes - there;
      session.isDelivery = frame.kind == Frame::Kind::delivery;
      return bytes.size();
    }
    place += frame.bytes;
    switch (frame.kind) {
      case Frame::Kind::nothing:
        break;
      case Frame::Kind::acknowledgement:
        seen.acknowledged += frame.count;
        break;
      case Frame::Kind::delivery:
        ++seen.delivered;
        break;
      case Frame::Kind::confirmation:
        ++seen.confirmed;
        break;
    }
  }
  return place;
}

// Returns the little-endian number in 4 bytes.
inline std::uint32_t littleEndian(const char* bytes) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

inline void appendLittleEndian(std::string& out, std::uint32_t value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

inline void appendBigEndian(std::string& out, std::uint64_t value, int byteCount) {
  for (int shift = 8 * (byteCount - 1); shift >= 0; shift -= 8)
    out.push_back(static_cast<char>(value >> shift));
}

}  // namespace keel::bench
