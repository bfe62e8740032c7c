// SPDX-License-Identifier: Apache-2.0
// An update of an item, from the registry to the transport of each of its subscribers.
#include <benchmark/benchmark.h>

#include <array>
#include <vector>

#include "bench/micro/sink_client.h"
#include "notify/notification_service.h"
#include "runtime/dispatch/manual_executor.h"

namespace keel {
namespace {

void updateSubscribers(benchmark::State& state) {
  ManualExecutor executor;
  KLNNotificationService service(executor);
  const bench::SinkClient publisher;
  const std::vector<bench::SinkClient> subscribers(static_cast<std::size_t>(state.range(0)));
  const Name name("benchmark");
  // Alternating, so that each update is encoded.
  const std::array items{bench::itemOf(static_cast<std::size_t>(state.range(1))),
                         bench::itemOf(static_cast<std::size_t>(state.range(1)))};
  service.publishItem(items[0], name, 0, 0, publisher.connection(), nullptr);
  for (const auto& subscriber : subscribers)
    service.subscribeTo(name, subscriber.connection(), 0, nullptr);
  executor.runAll();
  KLNPublishedObject& published = *service.published().at(name);
  std::size_t updateCount = 0;
  for (auto _ : state) {
    service.inputQ()->async(
        [&published, data = items[updateCount++ % 2]] { published.updateWithData(data); });
    executor.runAll();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  if (subscribers.back().sentBytes() == 0) state.SkipWithError("nothing was sent");
}
BENCHMARK(updateSubscribers)
    ->ArgNames({"subscribers", "bytes"})
    ->Args({1, 128})
    ->Args({100, 128})
    ->Args({1000, 128})
    ->Args({100, 4096});

}  // namespace
}  // namespace keel
