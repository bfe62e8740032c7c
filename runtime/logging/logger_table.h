// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/logging/log_queue.h"
#include "runtime/logging/log_setting.h"
#include "runtime/logging/log_system.h"

namespace keel {

// All loggers by category, their levels, and where their messages go: nowhere, to a queue, or to a
// capture. Any thread.
class LoggerTable {
 public:
  using Receiver = std::function<void(const LogMessage&)>;

  // The process's table. It is never destroyed, because other threads may log while the process
  // ends.
  static LoggerTable& shared();

  LoggerTable() = default;
  LoggerTable(const LoggerTable&) = delete;
  LoggerTable& operator=(const LoggerTable&) = delete;

  // As _loggerForCategory(), startLogging() and flushLog().
  Logger& loggerForCategory(std::string_view category);
  std::string start(std::unique_ptr<LogOutput> output, std::string_view setting);
  bool flush(std::chrono::milliseconds patience);

  // As LogCapture. `receiver` stays the caller's and is known by its address.
  void beginCapture(const Receiver& receiver, LogLevel least = LogLevel::debug);
  void endCapture(const Receiver& receiver);

  // A message of `logger`, whose text may be cut already.
  void submit(const Logger& logger, LogLevel level, std::string text,
              std::size_t fullBytes) noexcept;

 private:
  // Hands the message to the newest capture; false when there is none.
  bool capture(const LogMessage& message);
  // Both with tableMutex_ held.
  std::uint8_t thresholdFor(std::string_view category) const;
  void refreshThresholds();

  // Never taken in the other order; a receiver runs with captureMutex_ held and may ask for a
  // logger.
  std::mutex captureMutex_;
  std::mutex tableMutex_;

  struct Capture {
    const Receiver* receiver;
    LogLevel least;
  };
  std::vector<Capture> captures_;  // With captureMutex_; changed with both.
  std::atomic<bool> capturing_{false};

  std::map<std::string, std::unique_ptr<Logger>, std::less<>>
      loggersByCategory_;              // With tableMutex_.
  std::optional<LogSetting> setting_;  // With tableMutex_; none until started.

  std::unique_ptr<LogQueue> queue_;
  // queue_ once it is there, for threads that hold no lock.
  std::atomic<LogQueue*> startedQueue_{nullptr};
};

}  // namespace keel
