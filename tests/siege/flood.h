// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/foundation/file_descriptor.h"
#include "tests/siege/request_block.h"

namespace keel::siege {

using Deadline = std::chrono::steady_clock::time_point;
using SharedBytes = std::shared_ptr<const std::string>;

inline constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

enum class WhenEnded : std::uint8_t { stay, connectAgain };

// What one connection does: it sends `prelude` once, and then `block` and `tail` again and again,
// as fast as its socket takes them.
struct StreamPlan {
  std::string path;
  SharedBytes prelude{};
  RequestBlock block{};               // empty: only the prelude
  SharedBytes tail{};                 // may be null
  int file = -1;                      // sent with the first byte of each block; borrowed
  std::size_t writeBytes = kNoLimit;  // most of one system call
  std::size_t readBytes = kNoLimit;   // the same; 0: it never reads
  WhenEnded whenEnded = WhenEnded::stay;
};

struct FloodOutcome {
  std::size_t connectionCount = 0;
  std::size_t endedCount = 0;  // connections that the daemon ended
  std::uint64_t sentBytes = 0;
  std::uint64_t receivedBytes = 0;
};

// Sends bytes without waiting, and `file` with the first of them unless it is -1. Returns as
// sendmsg(2) does.
ssize_t sendWith(int socket, std::string_view bytes, int file);

// Connects, and waits at most until `deadline` while the backlog of the listener is full. Returns
// none then. Throws std::system_error on any other failure.
FileDescriptor connectTo(const std::string& path, Deadline deadline);

// Many connections of one thread. A connection that the daemon has ended stays open on this side,
// so that the kernel keeps what was not read.
class Flood {
 public:
  Flood();
  ~Flood();
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  // Connects. Returns false, and adds nothing, if that is not possible before `deadline`.
  bool add(StreamPlan plan, Deadline deadline);
  void run(Deadline deadline);
  // Returns earlier once every prelude has been sent. For streams without blocks.
  void runUntilSent(Deadline deadline);
  // Returns earlier once all streams together have received that much.
  void runUntilReceived(std::uint64_t bytes, Deadline deadline);

  const FloodOutcome& outcome() const { return outcome_; }

 private:
  struct Stream;

  void serve(Deadline deadline);
  void watch(Stream& stream, int operation);
  void write(Stream& stream);
  void read(Stream& stream);
  void end(Stream& stream);

  const FileDescriptor epoll_;
  std::vector<std::unique_ptr<Stream>> streams_;
  std::size_t sendingCount_ = 0;  // streams that have something to send
  FloodOutcome outcome_;
};

}  // namespace keel::siege
