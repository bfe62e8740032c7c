// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/frame_splitter.h"

#include <algorithm>
#include <cstring>

#include "runtime/foundation/check.h"
#include "runtime/foundation/secret.h"
#include "runtime/wire/message.h"

namespace keel::xpc {

void FrameSplitter::give(std::span<const std::byte> bytes) {
  KEEL_CHECK(rest_.empty());
  if (kept_.empty()) {
    rest_ = bytes;
    return;
  }
  if (confidential_) growKept(bytes.size());
  kept_.insert(kept_.end(), bytes.begin(), bytes.end());
  rest_ = kept_;
}

FrameSplitter::Found FrameSplitter::next() {
  if (skipBytes_ > 0) {
    const std::size_t skipped = std::min(skipBytes_, rest_.size());
    rest_ = rest_.subspan(skipped);
    skipBytes_ -= skipped;
  }
  if (rest_.size() < kLengthBytes) return Found::nothing;
  std::size_t length = 0;
  for (std::size_t i = 0; i < kLengthBytes; ++i)
    length |= std::to_integer<std::size_t>(rest_[i]) << (8 * i);
  frameSizeBytes_ = length;
  if (length > garbageBytes_) return Found::garbage;
  const std::size_t present = rest_.size() - kLengthBytes;
  if (length > limitBytes_) {
    const std::size_t wanted = std::min(length, beginningBytes_);
    if (present < wanted) return Found::nothing;
    frame_ = rest_.subspan(kLengthBytes, wanted);
    rest_ = rest_.subspan(kLengthBytes);
    skipBytes_ = length;
    return Found::oversized;
  }
  if (present < length) return Found::nothing;
  frame_ = rest_.subspan(kLengthBytes, length);
  rest_ = rest_.subspan(kLengthBytes + length);
  return Found::frame;
}

void FrameSplitter::keepRest() {
  if (rest_.empty()) {
    // Releases the memory of a large frame; an idle connection holds none.
    dropKept();
  } else if (kept_.empty() || rest_.data() < kept_.data() ||
             rest_.data() >= kept_.data() + kept_.size()) {
    kept_.assign(rest_.begin(), rest_.end());
  } else if (rest_.size() < kept_.size()) {
    // Only then: a large frame must not be moved for every piece of it that arrives.
    const auto end = std::copy(rest_.begin(), rest_.end(), kept_.begin());
    if (confidential_) wipe({end, kept_.end()});
    kept_.erase(end, kept_.end());
  }
  rest_ = {};
  frame_ = {};
}

std::size_t FrameSplitter::take(std::span<std::byte> destination) {
  KEEL_CHECK(rest_.empty() && destination.size() >= kept_.size());
  const std::size_t taken = kept_.size();
  if (taken > 0) std::memcpy(destination.data(), kept_.data(), taken);
  dropKept();
  return taken;
}

void FrameSplitter::growKept(std::size_t moreBytes) {
  if (kept_.capacity() - kept_.size() >= moreBytes) return;
  std::vector<std::byte> grown;
  grown.reserve(std::max(kept_.size() + moreBytes, 2 * kept_.capacity()));
  grown = kept_;
  wipe(kept_);
  kept_.swap(grown);
}

void FrameSplitter::dropKept() noexcept {
  if (confidential_) wipe(kept_);
  kept_ = {};
}

}  // namespace keel::xpc
