// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "tests/siege/frame_client.h"
#include "tests/siege/measured_times.h"
#include "tests/siege/raw_client.h"
#include "tests/siege/request_block.h"
#include "tests/siege/victims.h"

namespace keel::siege {

namespace {

constexpr std::uint64_t kTickNanoseconds = 1'000'000;
constexpr std::uint64_t kTicksPerAuthRequest = 10;
constexpr std::uint64_t kTicksPerNewcomer = 50;
constexpr std::uint64_t kWarmUpTicks = 300;
constexpr std::chrono::seconds kConnectPatience{5};
constexpr char kOneWay = 2;
constexpr char kReply = 3;
constexpr char kFailure = 4;

std::uint64_t now() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
         static_cast<std::uint64_t>(time.tv_nsec);
}

Deadline fromNow() {
  return std::chrono::steady_clock::now() + kConnectPatience;
}

double millisecondsSince(std::uint64_t then) {
  return static_cast<double>(now() - then) / 1e6;
}

// What one period is about. Updates and requests count for the period in which they were queued.
struct Period {
  MeasuredTimes deliveries;
  MeasuredTimes authAnswers;
  MeasuredTimes newcomers;
  std::uint64_t updateCount = 0;
  std::uint64_t answerCount = 0;
  std::uint64_t deliveryCount = 0;
  std::uint64_t authRequestCount = 0;
  std::uint64_t newcomerCount = 0;
};

class Victims {
 public:
  explicit Victims(const VictimsPlan& plan)
      : plan_(plan), publisher_(plan.notifyPath, fromNow()), auth_(plan.authPath, fromNow()) {
    timer_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec interval{};
    interval.it_interval.tv_nsec = interval.it_value.tv_nsec = kTickNanoseconds;
    ::timerfd_settime(timer_.get(), 0, &interval, nullptr);
    watch(STDIN_FILENO);
    watch(timer_.get());
    watch(auth_.descriptor());
    watch(publisher_.descriptor());
    auth_.send(frameOf(Value::list({0, 1, Value::list({}), Value::map({})})));
    publisher_.send(helloFrame() + requestFrame(static_cast<int>(NotifyMethod::publish),
                                                Value::list({item(), plan.name, 0, 0})));
    const std::string following =
        helloFrame() +
        requestFrame(static_cast<int>(NotifyMethod::subscribe), Value::list({plan.name, 0}));
    for (std::size_t i = 0; i < plan.followerCount; ++i) {
      followers_.push_back(std::make_unique<FrameClient>(plan.notifyPath, fromNow()));
      watch(followers_.back()->descriptor());
      followers_.back()->send(following);
    }
    prepareFrames();
  }

  void run() {
    const Deadline standing = fromNow();
    while (!isStanding()) {
      if (std::chrono::steady_clock::now() >= standing) {
        throw std::runtime_error("the daemon does not serve");
      }
      serveOnce();
    }
    std::puts("ready");
    std::fflush(stdout);
    while (period_ < kOver) serveOnce();
    const Deadline patience = std::chrono::steady_clock::now() + plan_.arrivalPatience;
    while (!isComplete() && std::chrono::steady_clock::now() < patience) serveOnce();
    std::puts(toJson().c_str());
  }

 private:
  // Before the attack, the attack, after it. Not all followers are there from the beginning, so
  // nothing counts as lost in the first one.
  static constexpr std::size_t kPeriodCount = 3;
  static constexpr std::size_t kOver = kPeriodCount;

  // Connects; `connection` is none while the backlog of the listener is full.
  struct Newcomer {
    std::uint64_t began;
    std::size_t period;
    std::unique_ptr<FrameClient> connection{};
  };

  static Value item() { return Value::map({{"t", kFirstWideId}, {"p", kFirstWideId}}); }

  void prepareFrames() {
    update_ =
        requestFrame(static_cast<int>(NotifyMethod::update), Value::list({item(), plan_.name}));
    delivery_ = frameOf(Value::list({2, 0, Value::list({plan_.name, item(), 0, nullptr})}));
    authRequest_ = requestFrame(static_cast<int>(AuthMethod::defaultRealm), Value::list({}));
    timeInUpdate_ = offsetOf("t", update_);
    periodInUpdate_ = offsetOf("p", update_);
    timeInDelivery_ = offsetOf("t", delivery_);
    periodInDelivery_ = offsetOf("p", delivery_);
  }

  // Position of the 8 bytes behind that key of the item.
  static std::size_t offsetOf(const char* key, const std::string& frame) {
    const std::string wide("\x1b\0\0\0\1", 5);
    return frame.find("\x61" + std::string(key) + wide) + 3;
  }

  void watch(int descriptor) {
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
      throw std::system_error(errno, std::system_category(), "epoll_ctl");
    }
  }

  void serveOnce() {
    std::array<epoll_event, 32> events;
    const int count =
        ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), 100);
    for (int i = 0; i < count; ++i) serve(events[static_cast<std::size_t>(i)].data.fd);
  }

  void serve(int descriptor) {
    if (descriptor == STDIN_FILENO) return onLine();
    if (descriptor == timer_.get()) return onTimer();
    if (descriptor == publisher_.descriptor()) return onPublisher();
    if (descriptor == auth_.descriptor()) return onAuth();
    for (const auto& follower : followers_) {
      if (descriptor == follower->descriptor()) return onFollower(*follower);
    }
    onNewcomer(descriptor);
  }

  void onLine() {
    char byte = 0;
    const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
    if (got == 1 && byte != '\n') return;
    period_ = got == 1 ? period_ + 1 : kOver;
    if (period_ == kOver) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, STDIN_FILENO, nullptr);
  }

  void onTimer() {
    std::uint64_t expirations = 0;
    if (::read(timer_.get(), &expirations, sizeof expirations) != sizeof expirations) return;
    publisher_.flush();
    auth_.flush();
    if (period_ == kOver) return;
    for (; expirations > 0; --expirations) {
      ++tickCount_;
      publish();
      if (tickCount_ % kTicksPerAuthRequest == 0) askAuth();
    }
    if (tickCount_ >= nextNewcomer_ && !newcomer_) {
      nextNewcomer_ = tickCount_ + kTicksPerNewcomer;
      newcomer_.emplace(now(), period_);
      ++periods_[period_].newcomerCount;
    }
    if (newcomer_ && !newcomer_->connection) connectNewcomer();
  }

  void publish() {
    storeWide(update_.data() + kWideIdOffset, ++lastId_);
    storeWide(update_.data() + timeInUpdate_, now());
    storeWide(update_.data() + periodInUpdate_, kFirstWideId + period_);
    periodOfUpdate_.push_back(static_cast<std::uint8_t>(period_));
    ++periods_[period_].updateCount;
    publisher_.send(update_);
  }

  void askAuth() {
    storeWide(authRequest_.data() + kWideIdOffset, ++lastAuthId_);
    authAsked_[lastAuthId_] = {now(), period_};
    ++periods_[period_].authRequestCount;
    auth_.send(authRequest_);
  }

  void connectNewcomer() {
    FileDescriptor socket = connectTo(plan_.notifyPath, Deadline::min());
    if (!socket) return;
    newcomer_->connection = std::make_unique<FrameClient>(std::move(socket));
    watch(newcomer_->connection->descriptor());
    newcomer_->connection->send(helloFrame());
  }

  // It is served once the daemon has said hello.
  void onNewcomer(int descriptor) {
    if (!newcomer_ || !newcomer_->connection) return;
    if (newcomer_->connection->descriptor() != descriptor) return;
    bool greeted = false;
    newcomer_->connection->read([&](std::string_view) { greeted = true; });
    if (greeted) periods_[newcomer_->period].newcomers.add(millisecondsSince(newcomer_->began));
    if (greeted || newcomer_->connection->ended()) newcomer_.reset();
  }

  void onPublisher() {
    publisher_.read([&](std::string_view frame) {
      if (frame[5] == kFailure) ++failureCount_;
      if (frame[5] != kReply) return;
      const std::uint64_t id = loadWide(frame.data() + kWideIdOffset);
      if (id == kFirstWideId) return;
      ++periods_[periodOfUpdate_[id - kFirstWideId - 1]].answerCount;
    });
    publisher_.flush();
    dropIfEnded(publisher_);
  }

  void onFollower(FrameClient& follower) {
    follower.read([&](std::string_view frame) {
      if (frame[5] != kOneWay || frame.size() != delivery_.size()) return;
      const std::uint64_t queued = loadWide(frame.data() + timeInDelivery_);
      const std::uint64_t period = loadWide(frame.data() + periodInDelivery_) - kFirstWideId;
      if (queued == kFirstWideId || period >= kPeriodCount) return;
      periods_[period].deliveries.add(millisecondsSince(queued));
      ++periods_[period].deliveryCount;
    });
    dropIfEnded(follower);
  }

  void onAuth() {
    auth_.read([&](std::string_view frame) {
      if (frame[5] != kReply) return;
      const auto asked = authAsked_.find(loadWide(frame.data() + kWideIdOffset));
      if (asked == authAsked_.end()) return;
      const auto [queued, period] = asked->second;
      periods_[period].authAnswers.add(millisecondsSince(queued));
      authAsked_.erase(asked);
    });
    dropIfEnded(auth_);
  }

  void dropIfEnded(const FrameClient& connection) {
    if (!connection.ended()) return;
    ++endedCount_;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, connection.descriptor(), nullptr);
  }

  bool isStanding() const {
    return tickCount_ >= kWarmUpTicks && periods_[0].answerCount > 0 &&
           periods_[0].deliveryCount > 0 && periods_[0].authAnswers.count() > 0;
  }

  bool isComplete() const {
    for (const Period& period : std::span(periods_).subspan(1)) {
      if (period.answerCount < period.updateCount ||
          period.deliveryCount < period.updateCount * plan_.followerCount) {
        return false;
      }
    }
    return authAsked_.empty();
  }

  std::string toJson() {
    std::uint64_t lost = 0;
    std::uint64_t unanswered = 0;
    for (const Period& period : std::span(periods_).subspan(1)) {
      lost += period.updateCount * plan_.followerCount - period.deliveryCount;
      unanswered += period.updateCount - period.answerCount;
    }
    Period& attack = periods_[1];
    Period& after = periods_[2];
    return fmt::format(
        R"({{"updates": {}, "p50": {:.3f}, "p99": {:.3f}, "max": {:.3f}, "after_max": {:.3f}, )"
        R"("auth_p99": {:.3f}, "auth_max": {:.3f}, "connect_p99": {:.3f}, "connect_max": {:.3f}, )"
        R"("newcomers": {}, "newcomers_served": {}, "lost": {}, "unanswered": {}, )"
        R"("auth_unanswered": {}, "failures": {}, "ended": {}}})",
        attack.updateCount, attack.deliveries.quantile(0.5), attack.deliveries.quantile(0.99),
        attack.deliveries.quantile(1), after.deliveries.quantile(1),
        attack.authAnswers.quantile(0.99), attack.authAnswers.quantile(1),
        attack.newcomers.quantile(0.99), attack.newcomers.quantile(1), attack.newcomerCount,
        attack.newcomers.count(), lost, unanswered, authAsked_.size(), failureCount_, endedCount_);
  }

  const VictimsPlan& plan_;
  const FileDescriptor epoll_{::epoll_create1(EPOLL_CLOEXEC)};
  FileDescriptor timer_;
  FrameClient publisher_;
  FrameClient auth_;
  std::vector<std::unique_ptr<FrameClient>> followers_;
  std::optional<Newcomer> newcomer_;  // one at a time

  std::string update_;
  std::string delivery_;
  std::string authRequest_;
  std::size_t timeInUpdate_ = 0;
  std::size_t periodInUpdate_ = 0;
  std::size_t timeInDelivery_ = 0;
  std::size_t periodInDelivery_ = 0;

  std::uint64_t lastId_ = kFirstWideId;  // the publication has that one
  std::uint64_t lastAuthId_ = kFirstWideId;
  std::vector<std::uint8_t> periodOfUpdate_;  // by id
  std::map<std::uint64_t, std::pair<std::uint64_t, std::size_t>> authAsked_;

  std::size_t period_ = 0;
  std::uint64_t tickCount_ = 0;
  std::uint64_t nextNewcomer_ = kTicksPerNewcomer;
  std::array<Period, kPeriodCount> periods_;
  std::uint64_t failureCount_ = 0;
  std::size_t endedCount_ = 0;
};

}  // namespace

void runVictims(const VictimsPlan& plan) {
  Victims(plan).run();
}

}  // namespace keel::siege
