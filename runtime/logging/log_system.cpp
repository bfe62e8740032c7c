// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/log_system.h"

#include <utility>

#include "runtime/logging/logger_table.h"

namespace keel {

std::string startLogging(std::unique_ptr<LogOutput> output, std::string_view setting) {
  return LoggerTable::shared().start(std::move(output), setting);
}

bool flushLog(std::chrono::milliseconds timeout) {
  return LoggerTable::shared().flush(timeout);
}

LogCapture::LogCapture(std::function<void(const LogMessage&)> receive, LogLevel least)
    : receive_(std::move(receive)) {
  LoggerTable::shared().beginCapture(receive_, least);
}

LogCapture::~LogCapture() {
  LoggerTable::shared().endCapture(receive_);
}

}  // namespace keel
