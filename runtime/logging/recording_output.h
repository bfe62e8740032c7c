// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "runtime/logging/log_system.h"

namespace keel {

// Records what a test's output is given. Shared by the test and the output that a queue owns.
class Recorder {
 public:
  struct Line {
    LogLevel level;
    std::string category;
    std::string text;
    std::chrono::system_clock::time_point time;
    std::size_t fullBytes;
    std::optional<uid_t> user;
  };

  // Returns an output that records every message here and returns accept(index), counted from 0.
  std::unique_ptr<LogOutput> output(std::function<bool(std::size_t)> accept = [](std::size_t) {
    return true;
  });

  // While the gate is closed, write() waits at it.
  void closeGate() {
    const std::lock_guard lock(mutex_);
    open_ = false;
  }
  void openGate() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void awaitWriterAtGate() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return atGate_; });
  }

  // Waits until a line with that text was written.
  void awaitText(std::string_view text) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] {
      return std::ranges::any_of(lines_, [text](const Line& line) { return line.text == text; });
    });
  }

  std::vector<Line> lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  std::vector<std::string> texts() {
    std::vector<std::string> texts;
    for (auto& line : lines()) texts.push_back(std::move(line.text));
    return texts;
  }

  std::size_t record(const LogMessage& message) {
    std::unique_lock lock(mutex_);
    atGate_ = !open_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    atGate_ = false;
    lines_.push_back({message.level, std::string(message.category), std::string(message.text),
                      message.time, message.fullBytes, message.user});
    changed_.notify_all();
    return lines_.size() - 1;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;
  bool atGate_ = false;
  std::vector<Line> lines_;
};

class RecordingOutput : public LogOutput {
 public:
  RecordingOutput(Recorder& recorder, std::function<bool(std::size_t)> accept)
      : recorder_(recorder), accept_(std::move(accept)) {}
  bool write(const LogMessage& message) override { return accept_(recorder_.record(message)); }

 private:
  Recorder& recorder_;
  const std::function<bool(std::size_t)> accept_;
};

inline std::unique_ptr<LogOutput> Recorder::output(std::function<bool(std::size_t)> accept) {
  return std::make_unique<RecordingOutput>(*this, std::move(accept));
}

// Far longer than any flush here takes; it only ends a test that hangs.
inline constexpr std::chrono::minutes kHangTimeout{1};

}  // namespace keel
