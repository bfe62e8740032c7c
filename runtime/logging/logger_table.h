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

// All loggers by category, their levels, and the destination of their messages: none, a queue, or a
// capture. From any thread.
class LoggerTable {
 public:
  using Receiver = std::function<void(const LogMessage&)>;

  // Returns the table of the process. Never destroyed, because other threads may log while the
  // process exits.
  static LoggerTable& shared();

  LoggerTable() = default;
  LoggerTable(const LoggerTable&) = delete;
  LoggerTable& operator=(const LoggerTable&) = delete;

  // See _loggerForCategory(), startLogging() and flushLog().
  Logger& loggerForCategory(std::string_view category);
  std::string start(std::unique_ptr<LogOutput> output, std::string_view setting);
  bool flush(std::chrono::milliseconds timeout);

  // See LogCapture. `receiver` is borrowed and identified by its address.
  void beginCapture(const Receiver& receiver, LogLevel least = LogLevel::debug);
  void endCapture(const Receiver& receiver);

  // Returns false if the line is to be left out because `user` has reached its limit.
  bool admits(const Logger& logger, LogLevel level, std::optional<uid_t> user) noexcept;
  // Submits a message of `logger`, which may already be truncated.
  void submit(const Logger& logger, LogLevel level, std::string text, std::size_t fullBytes,
              std::optional<uid_t> user) noexcept;

 private:
  // Passes the message to the newest capture; returns false if there is none.
  bool capture(const LogMessage& message);
  // Both under tableMutex_.
  std::uint8_t thresholdFor(std::string_view category) const;
  void refreshThresholds();

  // Lock order: captureMutex_, then tableMutex_. A receiver runs under captureMutex_ and may look
  // up a logger.
  std::mutex captureMutex_;
  std::mutex tableMutex_;

  struct Capture {
    const Receiver* receiver;
    LogLevel least;
  };
  std::vector<Capture> captures_;  // under captureMutex_; changed under both
  std::atomic<bool> capturing_{false};

  // Under tableMutex_.
  std::map<std::string, std::unique_ptr<Logger>, std::less<>> loggersByCategory_;
  std::optional<LogSetting> setting_;  // under tableMutex_; none until started

  std::unique_ptr<LogQueue> queue_;
  // queue_ once it exists, for threads that hold no lock.
  std::atomic<LogQueue*> startedQueue_{nullptr};
};

}  // namespace keel
