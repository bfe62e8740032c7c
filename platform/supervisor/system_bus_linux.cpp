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
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now()).count();
  return left > 0 ? static_cast<std::uint64_t>(left) : 0;
}

int waitUntilReady(sd_bus& bus, std::chrono::steady_clock::time_point deadline) {
  int status = 0;
  while ((status = sd_bus_is_ready(&bus)) == 0) {
    if ((status = sd_bus_process(&bus, nullptr)) < 0) return status;
    const auto left = microsecondsUntil(deadline);
    if (left == 0) return -ETIMEDOUT;
    if (status == 0 && (status = sd_bus_wait(&bus, left)) < 0 && status != -EINTR) return status;
  }
  return status;
}

}  // namespace keel
