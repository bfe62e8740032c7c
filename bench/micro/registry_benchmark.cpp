// SPDX-License-Identifier: Apache-2.0
// Insertion, lookup and removal of a name in a registry of a given size.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "bench/micro/sink_client.h"
#include "notify/notification_service.h"
#include "runtime/dispatch/manual_executor.h"

namespace keel {
namespace {

class Registry {
 public:
  explicit Registry(std::int64_t nameCount) {
    for (std::int64_t number = 0; number < nameCount; ++number) {
      service.publishItem(item, Name(fmt::format("name{}", number)), 0, 0, client.connection(),
                          nullptr);
    }
  }

  ManualExecutor executor;
  KLNNotificationService service{executor};
  const bench::SinkClient client;
  const Dictionary item = bench::itemOf(128);
  const Name name{"benchmark"};
};

void publishAndRemove(benchmark::State& state) {
  Registry registry(state.range(0));
  for (auto _ : state) {
    registry.service.publishItem(registry.item, registry.name, 0, 0, registry.client.connection(),
                                 nullptr);
    registry.service.removePublishedItemForName(registry.name, registry.client.connection(),
                                                nullptr);
  }
}
BENCHMARK(publishAndRemove)->ArgName("names")->Arg(10)->Arg(1000)->Arg(100000);

void subscribeAndUnsubscribe(benchmark::State& state) {
  Registry registry(state.range(0));
  registry.service.publishItem(registry.item, registry.name, 0, 0, registry.client.connection(),
                               nullptr);
  for (auto _ : state) {
    registry.service.subscribeTo(registry.name, registry.client.connection(), 0, nullptr);
    registry.service.removeSubscriptionForName(registry.name, registry.client.connection(),
                                               nullptr);
    registry.executor.runAll();
  }
}
BENCHMARK(subscribeAndUnsubscribe)->ArgName("names")->Arg(10)->Arg(1000)->Arg(100000);

}  // namespace
}  // namespace keel
