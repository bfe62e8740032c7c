// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace keel::xpc {

// Splits the bytes of a stream into frames, where they lie: only a frame that came in part is kept,
// and only then is memory held.
//
//   splitter.give(bytes);
//   while (splitter.next() == FrameSplitter::Found::frame) use(splitter.frame());
//   splitter.keepRest();   // `bytes` may go
class FrameSplitter {
 public:
  enum class Found : std::uint8_t {
    nothing,    // the next frame has not come whole
    frame,      // frame() holds it
    oversized,  // a frame over the limit begins; frameSizeBytes() and frame() (see setLimit) tell.
                // It is skipped.
    garbage,    // a length beyond everything: the stream makes no sense
  };

  // Frames longer than `limitBytes` are oversized, longer than `garbageBytes` garbage.
  FrameSplitter(std::size_t limitBytes, std::size_t garbageBytes)
      : limitBytes_(limitBytes), garbageBytes_(garbageBytes) {}

  ~FrameSplitter() { dropKept(); }
  FrameSplitter(const FrameSplitter&) = delete;
  FrameSplitter& operator=(const FrameSplitter&) = delete;

  // From here on an oversized frame is found once its first bytes are there, which frame() holds.
  // Until then its length is enough, and frame() is empty: such a frame is not answered.
  void setLimit(std::size_t limitBytes) {
    limitBytes_ = limitBytes;
    beginningBytes_ = kBeginningBytes;
  }
  // What is kept is wiped when it is dropped.
  void setConfidential() { confidential_ = true; }

  // Adds bytes behind those kept. They are borrowed until keepRest().
  void give(std::span<const std::byte> bytes);
  Found next();
  // The frame found last, without its length. Valid until the next call of anything else here.
  std::span<const std::byte> frame() const { return frame_; }
  std::size_t frameSizeBytes() const { return frameSizeBytes_; }
  void keepRest();

  // What is kept of a frame that came in part. take() hands it out, to be given again in front of
  // what comes next.
  std::size_t keptBytes() const { return kept_.size(); }
  std::size_t take(std::span<std::byte> destination);
  // In the middle of a frame, kept or skipped.
  bool inFrame() const { return !kept_.empty() || skipBytes_ > 0; }

 private:
  // How much of an oversized frame is looked at: enough for its kind and its request id.
  static constexpr std::size_t kBeginningBytes = 16;

  // Makes room, without leaving a copy of what is kept behind.
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
