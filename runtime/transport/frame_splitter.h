// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace keel::xpc {

// Splits the bytes of a stream into frames, in place: only an incomplete frame is kept, and memory
// is held only for it.
//
//   splitter.give(bytes);
//   while (splitter.next() == FrameSplitter::Found::frame) use(splitter.frame());
//   splitter.keepRest();   // `bytes` are no longer used
class FrameSplitter {
 public:
  enum class Found : std::uint8_t {
    nothing,    // the next frame is incomplete
    frame,      // frame() holds it
    oversized,  // a frame over the limit begins and is skipped; see frameSizeBytes() and setLimit()
    garbage,    // a length beyond all limits: the stream is corrupt
  };

  // Frames longer than `limitBytes` are oversized, longer than `garbageBytes` garbage.
  FrameSplitter(std::size_t limitBytes, std::size_t garbageBytes)
      : limitBytes_(limitBytes), garbageBytes_(garbageBytes) {}

  ~FrameSplitter() { dropKept(); }
  FrameSplitter(const FrameSplitter&) = delete;
  FrameSplitter& operator=(const FrameSplitter&) = delete;

  // Sets the limit. From here on an oversized frame is reported once its first bytes are there,
  // which frame() holds. Until then its length suffices and frame() is empty: such a frame is not
  // answered.
  void setLimit(std::size_t limitBytes) {
    limitBytes_ = limitBytes;
    beginningBytes_ = kBeginningBytes;
  }
  // Has kept bytes wiped when they are dropped.
  void setConfidential() { confidential_ = true; }

  // Adds bytes after those kept. Borrowed until keepRest().
  void give(std::span<const std::byte> bytes);
  Found next();
  // Returns the last frame found, without its length. Valid until the next call of anything else
  // here.
  std::span<const std::byte> frame() const { return frame_; }
  std::size_t frameSizeBytes() const { return frameSizeBytes_; }
  void keepRest();

  // The kept part of an incomplete frame. take() moves it out, to be given again in front of the
  // next bytes.
  std::size_t keptBytes() const { return kept_.size(); }
  std::size_t take(std::span<std::byte> destination);
  // Returns true inside a frame, kept or skipped.
  bool inFrame() const { return !kept_.empty() || skipBytes_ > 0; }
  bool isSkipping() const { return skipBytes_ > 0; }

 private:
  // How much of an oversized frame is inspected: enough for its kind and its request id.
  static constexpr std::size_t kBeginningBytes = 16;

  // Makes room without leaving a copy of the kept bytes behind.
  void growKept(std::size_t moreBytes);
  void dropKept() noexcept;

  std::size_t limitBytes_;
  std::size_t garbageBytes_;
  std::size_t beginningBytes_ = 0;
  std::span<const std::byte> rest_;
  std::span<const std::byte> frame_;
  std::size_t frameSizeBytes_ = 0;
  std::size_t skipBytes_ = 0;
  bool confidential_ = false;
  std::vector<std::byte> kept_;
};

}  // namespace keel::xpc
