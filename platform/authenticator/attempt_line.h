// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace keel {

// Lets a bounded number of threads go on at once, the others in the order in which they came. As
// many wait as there are threads that come. From any thread.
class AttemptLine {
 public:
  class Turn;

  explicit AttemptLine(std::size_t atOnce) : atOnce_(atOnce) {}
  AttemptLine(const AttemptLine&) = delete;
  AttemptLine& operator=(const AttemptLine&) = delete;

  // Waits for its turn, which lasts as long as what it yields.
  [[nodiscard]] Turn enter();

  std::size_t waitingCount() const;

 private:
  const std::size_t atOnce_;
  mutable std::mutex mutex_;
  std::condition_variable left_;
  // Numbers are given out in order; the one that is next to go on, and how many are on their way.
  // Under mutex_.
  std::uint64_t nextNumber_ = 0;
  std::uint64_t nextToGo_ = 0;
  std::size_t underWay_ = 0;
};

class AttemptLine::Turn {
 public:
  explicit Turn(AttemptLine& line) : line_(&line) {}
  Turn(Turn&& other) noexcept;
  Turn& operator=(Turn&&) = delete;
  ~Turn();

 private:
  AttemptLine* line_;
};

}  // namespace keel
