// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/logging/log_system.h"

namespace keel {

// Room for a burst of several messages from each of a thousand clients that die together.
inline constexpr std::size_t kLogQueueMessages = 8192;
// Memory that a stalled journal may take. The batch being written is no longer counted, so up to
// twice this may be held.
inline constexpr std::size_t kLogQueueBytes = 4 * 1024 * 1024;

// Messages in flight to an output, and the thread "keel-log" that writes them. A caller never waits
// for the output: when the queue is full the message is dropped and counted, and the next batch
// written ends with one line that reports the losses. Owned by its LoggerTable.
class LogQueue {
 public:
  explicit LogQueue(std::unique_ptr<LogOutput> output);
  // Writes what is queued, then ends the thread.
  ~LogQueue();
  LogQueue(const LogQueue&) = delete;
  LogQueue& operator=(const LogQueue&) = delete;

  // Queues a message, dated now. `category` must live as long as the queue; `fullBytes` as in
  // LogMessage.
  void push(LogLevel level, std::string_view category, std::string text,
            std::size_t fullBytes) noexcept;

  // Waits until everything pushed so far has been offered to the output. Returns false after
  // `timeout`.
  bool flush(std::chrono::milliseconds timeout);

 private:
  struct Entry {
    LogLevel level;
    std::string_view category;
    std::string text;
    std::chrono::system_clock::time_point time;
    std::size_t fullBytes;
  };

  void run() noexcept;
  // Both return how many messages were lost.
  std::uint64_t writeBatch(const std::vector<Entry>& batch) noexcept;
  std::uint64_t reportLost(std::uint64_t lostCount) noexcept;

  const std::unique_ptr<LogOutput> output_;
  std::mutex mutex_;
  std::condition_variable pushed_;
  std::condition_variable written_;
  std::vector<Entry> pending_;
  std::size_t pendingBytes_ = 0;
  std::uint64_t lostCount_ = 0;
  std::uint64_t pushedCount_ = 0;
  std::uint64_t writtenCount_ = 0;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace keel
