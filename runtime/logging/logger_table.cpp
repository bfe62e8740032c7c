// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/logger_table.h"

#include <utility>

#include "runtime/foundation/check.h"

namespace keel {

LoggerTable& LoggerTable::shared() {
  static LoggerTable& table = *new LoggerTable;
  return table;
}

Logger& LoggerTable::loggerForCategory(std::string_view category) {
  const std::lock_guard lock(tableMutex_);
  const auto found = loggersByCategory_.find(category);
  if (found != loggersByCategory_.end()) return *found->second;

  std::unique_ptr<Logger> logger(new Logger(std::string(category), *this));
  logger->threshold_.store(thresholdFor(category), std::memory_order_relaxed);
  return *loggersByCategory_.emplace(category, std::move(logger)).first->second;
}

std::string LoggerTable::start(std::unique_ptr<LogOutput> output, std::string_view setting) {
  auto parsed = LogSetting::parse(setting);
  const std::lock_guard lock(tableMutex_);
  KEEL_CHECK(!queue_);
  queue_ = std::make_unique<LogQueue>(std::move(output));
  startedQueue_.store(queue_.get(), std::memory_order_release);
  setting_ = std::move(parsed.setting);
  refreshThresholds();
  return std::move(parsed.invalidEntries);
}

bool LoggerTable::flush(std::chrono::milliseconds timeout) {
  LogQueue* const queue = startedQueue_.load(std::memory_order_acquire);
  return queue == nullptr || queue->flush(timeout);
}

void LoggerTable::beginCapture(const Receiver& receiver, LogLevel least) {
  const std::lock_guard captureLock(captureMutex_);
  const std::lock_guard lock(tableMutex_);
  captures_.push_back({&receiver, least});
  capturing_.store(true);
  refreshThresholds();
}

void LoggerTable::endCapture(const Receiver& receiver) {
  const std::lock_guard captureLock(captureMutex_);
  const std::lock_guard lock(tableMutex_);
  std::erase_if(captures_, [&receiver](const Capture& each) { return each.receiver == &receiver; });
  capturing_.store(!captures_.empty());
  refreshThresholds();
}

bool LoggerTable::admits(const Logger& logger, LogLevel level, std::optional<uid_t> user) noexcept {
  LogQueue* const queue = startedQueue_.load(std::memory_order_acquire);
  return queue == nullptr || capturing_.load() || queue->admits(user, level, logger.category());
}

void LoggerTable::submit(const Logger& logger, LogLevel level, std::string text,
                         std::size_t fullBytes, std::optional<uid_t> user) noexcept {
  if (capturing_.load() &&
      capture({level, logger.category(), text, std::chrono::system_clock::now(), fullBytes, user}))
    return;
  // Checked again: a capture that has just ended may have enabled a level that the output must not
  // get.
  LogQueue* const queue = startedQueue_.load(std::memory_order_acquire);
  if (queue != nullptr && logger.enabled(level))
    queue->push(level, logger.category(), std::move(text), fullBytes, user);
}

bool LoggerTable::capture(const LogMessage& message) {
  const std::lock_guard lock(captureMutex_);
  if (captures_.empty()) return false;
  (*captures_.back().receiver)(message);
  return true;
}

std::uint8_t LoggerTable::thresholdFor(std::string_view category) const {
  constexpr std::uint8_t kNothing = 0xff;
  if (!captures_.empty()) return std::to_underlying(captures_.back().least);
  return setting_ ? std::to_underlying(setting_->levelFor(category)) : kNothing;
}

void LoggerTable::refreshThresholds() {
  for (const auto& [category, logger] : loggersByCategory_)
    logger->threshold_.store(thresholdFor(category), std::memory_order_relaxed);
}

}  // namespace keel
