// SPDX-License-Identifier: Apache-2.0
#include "tests/siege/crowd.h"

#include <sys/epoll.h>

#include <array>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "tests/siege/raw_client.h"

namespace keel::siege {

namespace {

constexpr std::uint64_t kInFlight = 1024;
constexpr std::size_t kReadBytes = 256u << 10;
constexpr int kEventsPerRound = 64;
constexpr int kPollMilliseconds = 100;

struct Member {
  explicit Member(const std::string& path) : client(path) {}
  RawClient client;
  std::string publishedName;  // empty: a follower
  std::uint64_t requestCount = 0;
};

class Crowd {
 public:
  explicit Crowd(const CrowdPlan& plan) : plan_(plan) {}

  CrowdOutcome run() {
    for (std::size_t i = 0; i < plan_.nameCount; ++i) {
      Member& publisher = add(publishers_);
      publisher.publishedName = name(i);
      publisher.client.request(NotifyMethod::publish, Value::list({item(), name(i), 0, 0}));
      publisher.requestCount = 1;
      pump(publisher);
    }
    for (std::size_t i = 0; i < plan_.followerCount; ++i) {
      Member& follower = add(followers_);
      follower.client.request(NotifyMethod::subscribe, Value::list({name(i % plan_.nameCount), 0}));
      follower.client.write();
    }
    const auto end = std::chrono::steady_clock::now() + plan_.duration;
    const auto serveUntilTheEnd = [this, end](const FileDescriptor& epoll) {
      while (std::chrono::steady_clock::now() < end) serve(epoll);
    };
    // Publishers run on a separate thread, so that they do not wait for followers.
    std::thread publishing(serveUntilTheEnd, std::cref(publishers_));
    serveUntilTheEnd(followers_);
    publishing.join();
    CrowdOutcome outcome;
    for (const auto& member : members_) {
      outcome.endedCount += member->client.ended();
      outcome.replyCount += member->client.replyCount();
      outcome.deliveryCount += member->client.deliveryCount();
    }
    return outcome;
  }

 private:
  std::string name(std::size_t number) const { return plan_.namePrefix + std::to_string(number); }
  Value item() const { return Value::map({{"v", std::string(plan_.itemBytes, 'x')}}); }

  Member& add(const FileDescriptor& epoll) {
    Member& member = *members_.emplace_back(std::make_unique<Member>(plan_.path));
    watch(epoll, EPOLL_CTL_ADD, member);
    return member;
  }

  static void watch(const FileDescriptor& epoll, int operation, Member& member) {
    epoll_event event{.events = EPOLLIN | EPOLLOUT | EPOLLONESHOT, .data = {.ptr = &member}};
    if (!member.client.hasOutput()) event.events &= ~EPOLLOUT;
    epoll_ctl(epoll.get(), operation, member.client.descriptor(), &event);
  }

  void pump(Member& publisher) {
    while (publisher.requestCount - publisher.client.replyCount() < kInFlight) {
      publisher.client.request(NotifyMethod::update,
                               Value::list({item(), publisher.publishedName}));
      ++publisher.requestCount;
    }
    publisher.client.write();
  }

  void serve(const FileDescriptor& epoll) {
    std::array<epoll_event, kEventsPerRound> events;
    const int count = epoll_wait(epoll.get(), events.data(), kEventsPerRound, kPollMilliseconds);
    for (int i = 0; i < count; ++i) {
      Member& member = *static_cast<Member*>(events[static_cast<std::size_t>(i)].data.ptr);
      member.client.read(kReadBytes);
      if (member.client.ended()) continue;
      if (member.publishedName.empty()) {
        member.client.write();
      } else {
        pump(member);
      }
      // Requeued behind the others that are ready.
      watch(epoll, EPOLL_CTL_MOD, member);
    }
  }

  const CrowdPlan& plan_;
  const FileDescriptor publishers_{epoll_create1(EPOLL_CLOEXEC)};
  const FileDescriptor followers_{epoll_create1(EPOLL_CLOEXEC)};
  std::vector<std::unique_ptr<Member>> members_;
};

}  // namespace

CrowdOutcome runCrowd(const CrowdPlan& plan) {
  return Crowd(plan).run();
}

}  // namespace keel::siege
