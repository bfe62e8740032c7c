// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <unordered_map>

namespace keel::xpc {

// What waits for peers that do not read, by the users who answer for them. Lives on the thread of its streams.
template <class Stream, class User>
class WaitingOutput {
 public:
  // Notes what waits for `stream` now, and how much of it is held for it alone; nothing of both forgets it.
  void note(Stream* stream, const User* user, std::size_t waitingBytes, std::size_t ownBytes) {
    const auto load = loads_.try_emplace(user).first;
    Entry& entry = load->second.entries[stream];
    load->second.bytes += waitingBytes - entry.waitingBytes;
    ownBytes_ += ownBytes - entry.ownBytes;
    entry = {waitingBytes, ownBytes};
    if (waitingBytes > 0 || ownBytes > 0) return;
    load->second.entries.erase(stream);
    if (load->second.entries.empty()) loads_.erase(load);
  }

  // Of all streams together.
  std::size_t ownBytes() const { return ownBytes_; }

  // Of the user for whom most waits, the stream for which most waits; null when nothing waits for anybody.
  Stream* heaviest() const {
    if (loads_.empty()) return nullptr;
    const auto most = std::ranges::max_element(loads_, {}, [](const auto& load) { return load.second.bytes; });
    return std::ranges::max_element(most->second.entries, {}, [](const auto& entry) { return entry.second.waitingBytes; })
        ->first;
  }

 private:
  struct Entry {
    std::size_t waitingBytes = 0;
    std::size_t ownBytes = 0;
  };
  struct Load {
    std::unordered_map<Stream*, Entry> entries;
    std::size_t bytes = 0;  // that wait
  };

  std::unordered_map<const User*, Load> loads_;
  std::size_t ownBytes_ = 0;
};

}  // namespace keel::xpc
