// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/value.h"

namespace keel::siege {

// The selectors of the notify service, by their index in the daemon's list.
enum class NotifyMethod : int {
  subscribe = 1,
  unsubscribe = 2,
  publish = 3,
  update = 4,
  remove = 5,
  dump = 7
};

// A non-blocking connection to the daemon that writes arbitrary bytes and counts received frames.
class RawClient {
 public:
  // Connects and appends a hello that exports the delivery method. Throws std::system_error.
  explicit RawClient(const std::string& path);

  int descriptor() const { return socket_.get(); }
  bool ended() const { return ended_; }
  std::uint64_t replyCount() const { return replyCount_; }
  std::uint64_t deliveryCount() const { return deliveryCount_; }
  bool hasOutput() const { return sentBytes_ < output_.size(); }

  // Appends a frame that holds `message`.
  void append(const Value& message);
  // Appends a request and returns its id.
  std::uint64_t request(NotifyMethod method, const Value& arguments);

  // Writes what the socket takes.
  void write();
  // Reads what the socket has, at most `limitBytes`, and counts the frames in it.
  void read(std::size_t limitBytes);

 private:
  void countFrames(std::span<const std::byte> bytes);

  FileDescriptor socket_;
  std::string output_;
  std::size_t sentBytes_ = 0;
  std::uint64_t lastId_ = 0;
  std::uint64_t replyCount_ = 0;
  std::uint64_t deliveryCount_ = 0;
  std::string head_;              // of the incoming frame, up to its kind
  std::size_t skippedBytes_ = 0;  // of that frame, not yet received
  bool ended_ = false;
};

}  // namespace keel::siege
