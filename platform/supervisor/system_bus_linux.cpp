// SPDX-License-Identifier: Apache-2.0
#include <systemd/sd-bus.h>

#include <cerrno>

#include "platform/supervisor/system_bus.h"

namespace keel {

void BusCloser::operator()(sd_bus* bus) const {
  sd_bus_close_unref(bus);
}

void MessageReleaser::operator()(sd_bus_message* message) const {
  sd_bus_message_unref(message);
}

std::uint64_t microsecondsUntil(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
  return left > 0 ? static_cast<std::uint64_t>(left) : 0;
}

int waitUntilReady(sd_bus& bus, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const int ready = sd_bus_is_ready(&bus);
    if (ready != 0) return ready;
    const int processed = sd_bus_process(&bus, nullptr);
    if (processed < 0) return processed;
    const auto left = microsecondsUntil(deadline);
    if (left == 0) return -ETIMEDOUT;
    if (processed > 0) continue;
    const int waited = sd_bus_wait(&bus, left);
    if (waited < 0 && waited != -EINTR) return waited;
  }
}

}  // namespace keel
