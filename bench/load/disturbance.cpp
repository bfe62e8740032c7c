// SPDX-License-Identifier: Apache-2.0
#include "bench/load/disturbance.h"

#include <fmt/format.h>

#include "bench/load/daemon_usage.h"

namespace keel::bench {

namespace {

constexpr std::chrono::seconds kQuietTime{1};
constexpr std::chrono::seconds kLongestTime{30};
// The work after a closed connection has no visible end; it takes much less than this.
constexpr std::chrono::milliseconds kCleanUpTime{1500};
constexpr std::chrono::milliseconds kAfterTime{200};
constexpr std::size_t kOutstanding = 1u << 16;

FanOutPlan steadyPlan(pid_t daemon) {
  FanOutPlan plan;
  plan.daemon = daemon;
  plan.outstanding = kOutstanding;
  plan.publishesPerSecond = 1000;
  return plan;
}

double milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

Disturbance::Disturbance(Crowd& crowd, pid_t daemon)
    : crowd_(crowd), daemon_(daemon), steady_(crowd, steadyPlan(daemon)) {
  steady_.prepare();
}

Result Disturbance::dump(std::size_t itemCount) {
  owner(itemCount, Role::publisher);
  Client& reader = crowd_.add(Role::publisher);
  return measure(
      [&] {
        crowd_.system().dump(reader.session());
        crowd_.flush(reader);
      },
      [&reader] { return reader.seen().acknowledged > 0; });
}

Result Disturbance::cleanUp(std::size_t itemCount) {
  const Client& publisher = owner(itemCount, Role::publisher);
  const Client& subscriber = owner(itemCount, Role::subscriber);
  Clock::time_point end;
  return measure(
      [&] {
        crowd_.remove(publisher);
        crowd_.remove(subscriber);
        end = Clock::now() + kCleanUpTime;
      },
      [&end] { return Clock::now() >= end; });
}

// A client that publishes, or follows, `itemCount` names.
Client& Disturbance::owner(std::size_t itemCount, Role role) {
  Client& client = crowd_.add(role);
  for (std::size_t number = 0; number < itemCount; ++number) {
    Topic topic{.name = fmt::format("m{:06}", number), .frame = {}, .published = false};
    if (role == Role::publisher) {
      crowd_.system().publish(client.session(), topic);
    } else {
      crowd_.system().subscribe(client.session(), topic);
    }
  }
  crowd_.flush(client);
  crowd_.until([&] { return client.seen().acknowledged + client.seen().confirmed >= itemCount; },
               "items");
  return client;
}

Result Disturbance::measure(const std::function<void()>& begin,
                            const std::function<bool()>& isOver) {
  steady_.run(kQuietTime);
  steady_.completions().clear();
  const auto usageBefore = DaemonUsage::of(daemon_);
  steady_.run(kQuietTime);
  const auto usage = DaemonUsage::of(daemon_);
  const double quiet = steady_.completions().quantile(1);
  steady_.completions().clear();

  const auto start = Clock::now();
  begin();
  steady_.run(kLongestTime, isOver);
  const auto took = Clock::now() - start;
  // A publish still pending counts, too.
  steady_.run(kAfterTime);
  const auto usageAfter = DaemonUsage::of(daemon_);
  const double quietShare =
      milliseconds(usage.processor - usageBefore.processor) / milliseconds(kQuietTime);

  Result result;
  result.add("took_ms", milliseconds(took));
  result.add("longest_hold_up_ms", steady_.completions().quantile(1) / 1000);
  result.add("longest_quiet_ms", quiet / 1000);
  // Minus the cost of the steady publisher.
  result.add("daemon_ms", milliseconds(usageAfter.processor - usage.processor) -
                              quietShare * milliseconds(Clock::now() - start));
  result.add("resident_bytes", static_cast<double>(usage.residentBytes));
  return result;
}

}  // namespace keel::bench
