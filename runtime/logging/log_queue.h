// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "runtime/logging/line_limits.h"
#include "runtime/logging/log_system.h"

namespace keel {

// Room for a burst of several messages from each of a thousand clients that die together.
inline constexpr std::size_t kLogQueueMessages = 8192;
// Memory that a stalled journal may take. The batch being written is no longer counted, so up to
// twice this may be held.
inline constexpr std::size_t kLogQueueBytes = 4 * 1024 * 1024;
// A user's messages may fill a quarter of the room that all others leave: a fifth of the queue for
// a single such user, and so on. Even twenty such users leave room for another's faults.
inline constexpr std::size_t kLogQueueUserPart = 4;
// Delay after which the lines that a limit has left out are reported.
inline constexpr std::chrono::seconds kLeftOutReportInterval{1};

// Messages in flight to an output, and the thread "keel-log" that writes them. A caller never waits
// for the output: when the queue is full the message is dropped and counted, and the next batch
// written ends with one line that reports the losses.
//
// Lines that users cause are limited (line_limits.h), except root's; within a second one line
// reports how many were left out. Owned by its LoggerTable.
class LogQueue {
 public:
  using Clock = LineLimits::Clock;

  // `now` is the clock of the limits. Tests pass one that they advance by hand.
  explicit LogQueue(std::unique_ptr<LogOutput> output,
                    std::function<Clock::time_point()> now = &Clock::now);
  // Writes what is queued, then ends the thread.
  ~LogQueue();
  LogQueue(const LogQueue&) = delete;
  LogQueue& operator=(const LogQueue&) = delete;

  // Returns false, and counts the line, if `user` has reached its limit. Call it before formatting
  // the line. `category` must live as long as the queue.
  bool admits(std::optional<uid_t> user, LogLevel level, std::string_view category) noexcept;
  // Queues a message, dated now. `category` must live as long as the queue; `fullBytes` and `user`
  // as in LogMessage.
  void push(LogLevel level, std::string_view category, std::string text, std::size_t fullBytes,
            std::optional<uid_t> user = std::nullopt) noexcept;

  // Waits until everything pushed so far, and the report of what was left out, has been offered to
  // the output. Returns false after `timeout`.
  bool flush(std::chrono::milliseconds timeout);

 private:
  struct Entry {
    LogLevel level;
    std::string_view category;
    std::string text;
    std::chrono::system_clock::time_point time;
    std::size_t fullBytes;
    std::optional<uid_t> user;
  };

  struct Usage {
    std::size_t messages = 0;
    std::size_t bytes = 0;
  };

  void run() noexcept;
  // All under mutex_.
  bool hasRoomFor(const Entry& entry) const;
  void awaitWork(std::unique_lock<std::mutex>& lock);
  void add(Entry entry) noexcept;
  void reportLeftOut() noexcept;
  // Both return how many messages were lost.
  std::uint64_t writeBatch(const std::vector<Entry>& batch) noexcept;
  std::uint64_t reportLost(std::uint64_t lostCount) noexcept;

  const std::unique_ptr<LogOutput> output_;
  const std::function<Clock::time_point()> now_;
  std::mutex mutex_;
  std::condition_variable pushed_;
  std::condition_variable written_;
  std::vector<Entry> pending_;
  std::size_t pendingBytes_ = 0;
  std::unordered_map<uid_t, Usage> usageByUser_;  // of pending_
  LineLimits limits_;
  std::optional<Clock::time_point> leftOutReportAt_;  // while there is something to report
  std::uint64_t lostCount_ = 0;
  std::uint64_t pushedCount_ = 0;
  std::uint64_t writtenCount_ = 0;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace keel
