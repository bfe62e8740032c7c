// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>

#include "runtime/xpc/connection.h"

namespace keel::bench {

// A client whose connection discards callbacks: the measured path ends where bytes would be written
// to a socket. Used on one thread.
class SinkClient {
 public:
  SinkClient();
  ~SinkClient();
  SinkClient(const SinkClient&) = delete;
  SinkClient& operator=(const SinkClient&) = delete;

  const std::shared_ptr<xpc::Connection>& connection() const { return connection_; }
  // Returns the number of bytes sent to its connection.
  std::uint64_t sentBytes() const { return sentBytes_; }

 private:
  class SinkTransport;

  std::uint64_t sentBytes_ = 0;
  std::shared_ptr<xpc::Connection> connection_;
};

// Returns an item with one value of that size.
Dictionary itemOf(std::size_t bytes);

}  // namespace keel::bench
