// SPDX-License-Identifier: Apache-2.0
#include "bench/load/arrivals.h"

#include <algorithm>
#include <unordered_set>

#include "bench/load/daemon_usage.h"

namespace keel::bench {

namespace {

// Number of arrivals in flight.
constexpr std::size_t kAtOnce = 64;
// Arrivals before memory is measured, so that one-time allocations do not count.
constexpr std::size_t kFirstCount = 100;

}  // namespace

Result Arrivals::measure(std::size_t count) {
  arrive(kFirstCount);
  const auto usage = DaemonUsage::of(daemon_);
  const auto start = Clock::now();
  arrive(count);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const auto usageAfter = DaemonUsage::of(daemon_);

  const auto arrived = static_cast<double>(count);
  const std::chrono::duration<double, std::micro> processor =
      usageAfter.processor - usage.processor;
  Result result;
  result.add("arrivals_per_s", arrived / seconds);
  result.add("daemon_us_per_arrival", processor.count() / arrived);
  result.add("resident_bytes_per_subscriber", (static_cast<double>(usageAfter.residentBytes) -
                                               static_cast<double>(usage.residentBytes)) /
                                                  arrived);
  return result;
}

void Arrivals::arrive(std::size_t count) {
  const Topic topic{.name = "n000000", .frame = {}, .published = false};
  std::unordered_set<const Client*> underWay;
  for (std::size_t left = count; left > 0 || !underWay.empty();) {
    for (; left > 0 && underWay.size() < kAtOnce; --left) {
      Client& client = crowd_.add(Role::subscriber);
      crowd_.system().subscribe(client.session(), topic);
      crowd_.flush(client);
      underWay.insert(&client);
    }
    crowd_.turn(std::nullopt, [&underWay](const Client& client) {
      if (client.seen().confirmed > 0) underWay.erase(&client);
    });
  }
}

}  // namespace keel::bench
