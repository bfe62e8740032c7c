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

// A burst of several messages from each of a thousand clients that die together fits.
inline constexpr std::size_t kLogQueueMessages = 8192;
// What a stopped journal may cost us in memory. The batch on its way to the output is counted no
// more, so up to twice this may be held.
inline constexpr std::size_t kLogQueueBytes = 4 * 1024 * 1024;

// The messages on their way to an output, and the thread "keel-log" that brings them there. Whoever
// writes a message never waits for the output: when the queue is full the message is dropped and
// counted, and the next batch that is written ends with one line that says how many were lost.
// Owned by its LoggerTable.
class LogQueue {
 public:
  explicit LogQueue(std::unique_ptr<LogOutput> output);
  // Writes what is queued, then ends the thread.
  ~LogQueue();
  LogQueue(const LogQueue&) = delete;
  LogQueue& operator=(const LogQueue&) = delete;

  // `category` must live as long as the queue. The message's time is now. `fullBytes` as in
  // LogMessage.
  void push(LogLevel level, std::string_view category, std::string text,
            std::size_t fullBytes) noexcept;

  // Waits until everything pushed so far has been offered to the output, at most `patience`. False
  // when it has not.
  bool flush(std::chrono::milliseconds patience);

 private:
  struct Entry {
    LogLevel level;
    std::string_view category;
    std::string text;
    std::chrono::system_clock::time_point time;
    std::size_t fullBytes;
  };

  void run() noexcept;
  // Both return how many messages were lost on the way.
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
