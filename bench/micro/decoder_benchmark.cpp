// SPDX-License-Identifier: Apache-2.0
// Validation, the daemon's only pass over published data, and decoding, which only clients do.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_writer.h"

namespace keel {
namespace {

// Returns a typical item of at least that size: texts, numbers, a nested dictionary.
std::vector<std::byte> sampleItem(std::size_t bytes) {
  ByteSink pairs;
  cbor::Writer writer(pairs);
  std::size_t pairCount = 0;
  for (; pairs.size() < bytes; ++pairCount) {
    writer.text("key" + std::to_string(pairCount));
    switch (pairCount % 4) {
      case 0:
        writer.text("some text");
        break;
      case 1:
        writer.integer(static_cast<std::int64_t>(pairCount) * 1000);
        break;
      case 2:
        writer.real(0.5);
        break;
      default:
        writer.map(1);
        writer.text("on");
        writer.boolean(true);
    }
  }
  ByteSink item;
  cbor::Writer(item).map(pairCount);
  item.append(pairs);
  return {item.bytes().begin(), item.bytes().end()};
}

void validateItem(benchmark::State& state) {
  const auto item = sampleItem(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(cbor::validate(item, 64));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(item.size()));
}
BENCHMARK(validateItem)->Arg(128)->Arg(4096)->Arg(1 << 20);

void decodeItem(benchmark::State& state) {
  const auto item = sampleItem(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(cbor::decode(item, 64));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(item.size()));
}
BENCHMARK(decodeItem)->Arg(128)->Arg(4096);

}  // namespace
}  // namespace keel
