// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <vector>

#include "bench/load/crowd.h"
#include "bench/load/result.h"
#include "bench/load/times.h"

namespace keel::bench {

// What is published how, and to whom.
struct FanOutPlan {
  pid_t daemon = 0;
  std::size_t subscriberCount = 1;
  std::size_t topicCount = 1;      // every subscriber follows every one; they are published in turn
  std::size_t bystanderCount = 0;  // connected subscribers of a name that nobody publishes
  std::size_t outstanding = 1;     // publishes that may be under way
  double publishesPerSecond = 0;   // 0: as fast as they complete
  std::chrono::duration<double> warmUp{0.3};
  std::chrono::duration<double> measured{1};
};

// One publisher and its subscribers. A publish is outstanding until it was acknowledged and every
// subscriber has got it, so that nobody wins by building a queue.
class FanOut {
 public:
  FanOut(Crowd& crowd, const FanOutPlan& plan);

  // Subscribes, and publishes each name once. The publisher is the crowd's first client, its
  // subscribers are the next ones; others may join later, and are left alone.
  void prepare();
  // Warms up and measures.
  Result measure();
  // Publishes for so long, or until `isDone`.
  void run(std::chrono::duration<double> time, const std::function<bool()>& isDone = nullptr);
  // Times of completion since the last time that they were cleared. Not those of a pipeline.
  Times& completions() { return completions_; }

 private:
  void subscribe();
  void publishEachOnce();
  void heard(const Client& client);
  void advance();
  void publish(std::size_t count);
  std::size_t allowed(Clock::time_point now) const;
  Client& publisher() { return *crowd_.clients().front(); }

  Crowd& crowd_;
  const FanOutPlan plan_;
  std::vector<Topic> topics_;
  std::size_t nextTopic_ = 0;
  std::uint64_t publishedCount_ = 0;
  std::uint64_t acknowledgedCount_ = 0;
  std::uint64_t deliveredCount_ = 0;            // to all together
  std::vector<std::uint64_t> deliveredCounts_;  // by subscriber
  std::uint64_t lowestDelivered_ = 0;           // of deliveredCounts_
  std::size_t lowestHolders_ = 0;               // how many stand at it
  std::uint64_t completedCount_ = 0;
  std::uint64_t answeredCount_ = 0;
  Clock::time_point nextPublish_;
  std::deque<Clock::time_point> sentTimes_;  // of what was not answered or not completed
  std::uint64_t firstSentTime_ = 0;          // which publish its front is
  Times answers_;
  Times completions_;
};

}  // namespace keel::bench
