// SPDX-License-Identifier: Apache-2.0
// Submitting a block to a serial queue and running it, in batches of different sizes and on another
// thread.
#include <benchmark/benchmark.h>

#include <semaphore>

#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/dispatch/worker_pool.h"

namespace keel {
namespace {

void runBlocksInTurn(benchmark::State& state) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("benchmark", executor);
  std::uint64_t count = 0;
  for (auto _ : state) {
    for (std::int64_t block = 0; block < state.range(0); ++block) {
      queue->async([&count, queue] { ++count; });
    }
    executor.runAll();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(count));
}
BENCHMARK(runBlocksInTurn)->Arg(1)->Arg(16)->Arg(256);

void handBlockToWorker(benchmark::State& state) {
  WorkerPool pool(1);
  const auto queue = SerialQueue::create("benchmark", pool);
  std::binary_semaphore done(0);
  for (auto _ : state) {
    queue->async([&done] { done.release(); });
    done.acquire();
  }
}
BENCHMARK(handBlockToWorker)->UseRealTime();

}  // namespace
}  // namespace keel
