// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace keel {

// Lets a bounded number of threads go on at once, the others in the order in which they came; and lets no more than a bounded
// number wait. From any thread.
class AttemptLine {
 public:
  class Turn;

  AttemptLine(std::size_t atOnce, std::size_t waiting) : atOnce_(atOnce), waitingLimit_(waiting) {}
  AttemptLine(const AttemptLine&) = delete;
  AttemptLine& operator=(const AttemptLine&) = delete;

  // Waits for its turn, which lasts as long as what it yields; that is false at once when too many wait already.
  Turn enter();

  std::size_t waitingCount() const;

 private:
  const std::size_t atOnce_;
  const std::size_t waitingLimit_;
  mutable std::mutex mutex_;
  std::condition_variable left_;
  // Numbers are given out in order; the one that is next to go on, and how many are on their way. Under mutex_.
  std::uint64_t nextNumber_ = 0;
  std::uint64_t nextToGo_ = 0;
  std::size_t underWay_ = 0;
};

class AttemptLine::Turn {
 public:
  Turn() = default;
  explicit Turn(AttemptLine& line) : line_(&line) {}
  Turn(Turn&& other) noexcept;
  Turn& operator=(Turn&&) = delete;
  ~Turn();

  explicit operator bool() const { return line_ != nullptr; }

 private:
  AttemptLine* line_ = nullptr;
};

}  // namespace keel
