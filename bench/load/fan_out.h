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

// Parameters of a fan-out.
struct FanOutPlan {
  pid_t daemon = 0;
  std::size_t subscriberCount = 1;
  std::size_t topicCount = 1;      // every subscriber follows every one; they are published in turn
  std::size_t bystanderCount = 0;  // connected subscribers of an unpublished name
  std::size_t outstanding = 1;     // maximum number of publishes in flight
  double publishesPerSecond = 0;   // 0: as fast as they complete
  std::chrono::duration<double> warmUp{0.3};
  std::chrono::duration<double> measured{1};
};

// One publisher and its subscribers. A publish is outstanding until it was acknowledged and
// received by every subscriber, so that no system gains by building a queue.
class FanOut {
 public:
  FanOut(Crowd& crowd, const FanOutPlan& plan);

  // Subscribes, and publishes each name once. The publisher is the crowd's first client, its
  // subscribers are the next ones; clients that join later are ignored.
  void prepare();
  // Warms up and measures.
  Result measure();
  // Publishes for the given time, or until `isDone`.
  void run(std::chrono::duration<double> time, const std::function<bool()>& isDone = nullptr);
  // Returns the completion times since they were last cleared; none for a pipeline.
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
  std::uint64_t deliveredCount_ = 0;            // in total
  std::vector<std::uint64_t> deliveredCounts_;  // by subscriber
  std::uint64_t lowestDelivered_ = 0;           // of deliveredCounts_
  std::size_t lowestHolders_ = 0;               // number of subscribers at that count
  std::uint64_t completedCount_ = 0;
  std::uint64_t answeredCount_ = 0;
  Clock::time_point nextPublish_;
  std::deque<Clock::time_point> sentTimes_;  // of outstanding publishes
  std::uint64_t firstSentTime_ = 0;          // index of the publish at its front
  Times answers_;
  Times completions_;
};

}  // namespace keel::bench
