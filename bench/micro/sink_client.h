// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>

#include "runtime/xpc/connection.h"

namespace keel::bench {

// A client whose connection takes callbacks and forgets them: what is measured ends where bytes
// would go to a socket. All on one thread.
class SinkClient {
 public:
  SinkClient();
  ~SinkClient();
  SinkClient(const SinkClient&) = delete;
  SinkClient& operator=(const SinkClient&) = delete;

  const std::shared_ptr<xpc::Connection>& connection() const { return connection_; }
  // Bytes that its connection was given to send.
  std::uint64_t sentBytes() const { return sentBytes_; }

 private:
  class SinkTransport;

  std::uint64_t sentBytes_ = 0;
  std::shared_ptr<xpc::Connection> connection_;
};

// An item with one value of so many bytes.
Dictionary itemOf(std::size_t bytes);

}  // namespace keel::bench
