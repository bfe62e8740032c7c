// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "bench/load/arrivals.h"
#include "bench/load/disturbance.h"
#include "bench/load/fan_out.h"

namespace keel::bench {
namespace {

struct Options {
  std::string system, address, publisherAddress, measurement = "fan-out";
  std::size_t payloadBytes = 128, count = 10000;
  double seconds = 1;
  FanOutPlan plan;
};

Result run(const Options& options) {
  const auto system = systemOfName(options.system, options.payloadBytes);
  Crowd crowd(
      *system,
      Address(options.publisherAddress.empty() ? options.address : options.publisherAddress),
      Address(options.address));
  if (options.measurement == "arrivals")
    return Arrivals(crowd, options.plan.daemon).measure(options.count);
  if (options.measurement == "dump")
    return Disturbance(crowd, options.plan.daemon).dump(options.count);
  if (options.measurement == "clean-up")
    return Disturbance(crowd, options.plan.daemon).cleanUp(options.count);
  FanOutPlan plan = options.plan;
  plan.measured = std::chrono::duration<double>(options.seconds);
  plan.warmUp = plan.measured / 4;
  FanOut fanOut(crowd, plan);
  fanOut.prepare();
  return fanOut.measure();
}

}  // namespace
}  // namespace keel::bench

int main(int argumentCount, char** arguments) {
  keel::bench::Options options;
  CLI::App app(
      "Puts a load on a publish/subscribe system and prints what it measured, as one line of "
      "JSON.");
  app.add_option("system", options.system, "keeld, relay, redis, nats, mosquitto, zeromq or dbus")
      ->required();
  app.add_option("address", options.address, "path of its Unix socket, or port on this machine")
      ->required();
  app.add_option("pid", options.plan.daemon, "its process")->required();
  app.add_option("measurement", options.measurement, "what to measure")
      ->check(CLI::IsMember({"fan-out", "arrivals", "dump", "clean-up"}));
  app.add_option("--publishers", options.publisherAddress,
                 "address for publishers, where it is another");
  app.add_option("--payload", options.payloadBytes, "bytes of each publish");
  app.add_option("--count", options.count, "arrivals, or items");
  app.add_option("--seconds", options.seconds, "how long to measure");
  app.add_option("--subscribers", options.plan.subscriberCount, "subscribers of every name");
  app.add_option("--names", options.plan.topicCount, "names");
  app.add_option("--bystanders", options.plan.bystanderCount, "idle subscribers of another name");
  app.add_option("--outstanding", options.plan.outstanding, "publishes that may be under way");
  app.add_option("--rate", options.plan.publishesPerSecond,
                 "publishes per second; 0: as fast as they complete");
  CLI11_PARSE(app, argumentCount, arguments);
  try {
    fmt::print("{}\n", keel::bench::run(options).toJson());
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "keel-load: {} {}: {}\n", options.system, options.measurement, error.what());
    return 1;
  }
}
