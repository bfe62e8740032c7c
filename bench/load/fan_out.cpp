// SPDX-License-Identifier: Apache-2.0
#include "bench/load/fan_out.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "bench/load/daemon_usage.h"

namespace keel::bench {

namespace {

// Delay before publishing to a system that does not confirm subscriptions.
constexpr std::chrono::milliseconds kSubscriptionTime{500};

double microseconds(Clock::duration time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

}  // namespace

FanOut::FanOut(Crowd& crowd, const FanOutPlan& plan)
    : crowd_(crowd), plan_(plan), deliveredCounts_(plan.subscriberCount) {
  for (std::size_t number = 0; number < plan.topicCount; ++number) {
    topics_.push_back({.name = fmt::format("n{:06}", number), .frame = {}, .published = false});
  }
  lowestHolders_ = plan.subscriberCount;
}

void FanOut::prepare() {
  subscribe();
  publishEachOnce();
}

Result FanOut::measure() {
  run(plan_.warmUp);
  answers_.clear();
  completions_.clear();

  const auto usage = DaemonUsage::of(plan_.daemon);
  const auto own = ownProcessorTime();
  const auto start = Clock::now();
  const auto delivered = deliveredCount_;
  run(plan_.measured);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const auto usageAfter = DaemonUsage::of(plan_.daemon);
  const auto deliveries = static_cast<double>(deliveredCount_ - delivered);
  // A slow system may not complete a single one.
  const double publishes = deliveries / static_cast<double>(plan_.subscriberCount);
  if (deliveries < 1) throw std::runtime_error("nothing was delivered");
  const double daemonMicroseconds = microseconds(usageAfter.processor - usage.processor);

  Result result;
  result.add("deliveries_per_s", deliveries / seconds);
  result.add("publishes_per_s", publishes / seconds);
  result.add("daemon_us_per_delivery", daemonMicroseconds / deliveries);
  result.add("daemon_us_per_publish", daemonMicroseconds / publishes);
  result.add("daemon_share", daemonMicroseconds / seconds / 1e6);
  result.add("load_share", microseconds(ownProcessorTime() - own) / seconds / 1e6);
  result.add("sleeps_per_publish",
             static_cast<double>(usageAfter.wakeUpCount - usage.wakeUpCount) / publishes);
  result.add("resident_bytes", static_cast<double>(usageAfter.residentBytes));
  result.add("answer_p50_us", answers_.quantile(0.5));
  result.add("p50_us", completions_.quantile(0.5));
  result.add("p99_us", completions_.quantile(0.99));
  return result;
}

void FanOut::subscribe() {
  crowd_.flush(crowd_.add(Role::publisher));
  for (std::size_t number = 0; number < plan_.subscriberCount; ++number) {
    Client& client = crowd_.add(Role::subscriber);
    for (const Topic& topic : topics_) crowd_.system().subscribe(client.session(), topic);
    crowd_.flush(client);
    crowd_.until(
        [&] {
          return client.seen().confirmed >= (crowd_.system().confirms() ? topics_.size() : 1);
        },
        "subscriptions");
  }
  const Topic quiet{.name = "quiet", .frame = {}, .published = false};
  for (std::size_t number = 0; number < plan_.bystanderCount; ++number) {
    Client& client = crowd_.add(Role::subscriber);
    crowd_.system().subscribe(client.session(), quiet);
    crowd_.flush(client);
    crowd_.until([&] { return client.seen().confirmed >= 1; }, "bystanders' subscriptions");
  }
  if (crowd_.system().confirms()) return;
  for (const auto end = Clock::now() + kSubscriptionTime; Clock::now() < end;) {
    crowd_.turn(end, [](const Client&) {});
  }
}

void FanOut::publishEachOnce() {
  for (std::size_t left = topics_.size(); left > 0 || completedCount_ < publishedCount_;) {
    const std::size_t count =
        std::min(left, plan_.outstanding - (publishedCount_ - completedCount_));
    if (count > 0) publish(count);
    left -= count;
    const std::uint64_t before = completedCount_;
    crowd_.until(
        [&] {
          for (const auto& client : crowd_.clients()) heard(*client);
          return completedCount_ > before;
        },
        "first publishes");
  }
}

// Returns how many publishes may begin now.
std::size_t FanOut::allowed(Clock::time_point now) const {
  const std::size_t free = plan_.outstanding - (publishedCount_ - completedCount_);
  if (plan_.publishesPerSecond <= 0) return free;
  return now < nextPublish_ ? 0 : std::min<std::size_t>(free, 1);
}

void FanOut::run(std::chrono::duration<double> time, const std::function<bool()>& isDone) {
  auto now = Clock::now();
  const auto end = now + std::chrono::duration_cast<Clock::duration>(time);
  const bool paced = plan_.publishesPerSecond > 0;
  const auto interval = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(paced ? 1 / plan_.publishesPerSecond : 0));
  nextPublish_ = now;
  for (; now < end && (!isDone || !isDone()); now = Clock::now()) {
    if (const std::size_t count = allowed(now); count > 0) {
      publish(count);
      nextPublish_ += interval;
    }
    crowd_.turn(paced ? std::min(end, nextPublish_) : end,
                [this](const Client& client) { heard(client); });
  }
}

void FanOut::publish(std::size_t count) {
  Client& from = publisher();
  for (std::size_t each = 0; each < count; ++each) {
    crowd_.system().publish(from.session(), topics_[nextTopic_]);
    if (++nextTopic_ == topics_.size()) nextTopic_ = 0;
  }
  crowd_.system().endBatch(from.session(), count);
  publishedCount_ += count;
  // In a pipeline single publishes are not timed.
  if (plan_.outstanding == 1 || plan_.publishesPerSecond > 0) sentTimes_.push_back(Clock::now());
  crowd_.flush(from);
}

// Adds a client's counts.
void FanOut::heard(const Client& client) {
  if (client.number() == 0) {
    acknowledgedCount_ = client.seen().acknowledged;
  } else if (client.number() <= plan_.subscriberCount) {
    std::uint64_t& count = deliveredCounts_[client.number() - 1];
    const std::uint64_t before = count;
    count = client.seen().delivered;
    deliveredCount_ += count - before;
    // When the last subscriber leaves the lowest count, the minimum is recomputed: once per round
    // of all subscribers.
    if (before == lowestDelivered_ && count > before && --lowestHolders_ == 0) {
      lowestDelivered_ = std::ranges::min(deliveredCounts_);
      lowestHolders_ =
          static_cast<std::size_t>(std::ranges::count(deliveredCounts_, lowestDelivered_));
    }
  }
  advance();
}

void FanOut::advance() {
  const std::uint64_t answered =
      crowd_.system().acknowledges() ? acknowledgedCount_ : publishedCount_;
  completedCount_ = std::min(answered, lowestDelivered_);
  if (sentTimes_.empty()) return;
  const auto now = Clock::now();
  for (; answeredCount_ < answered; ++answeredCount_) {
    if (answeredCount_ < firstSentTime_) continue;
    answers_.add(microseconds(now - sentTimes_[answeredCount_ - firstSentTime_]));
  }
  for (; firstSentTime_ < completedCount_; ++firstSentTime_) {
    completions_.add(microseconds(now - sentTimes_.front()));
    sentTimes_.pop_front();
  }
}

}  // namespace keel::bench
