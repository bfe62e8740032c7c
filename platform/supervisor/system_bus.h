// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

struct sd_bus;
struct sd_bus_message;

namespace keel {

// A D-Bus connection to systemd, its names, and waiting with a deadline. The library itself would
// wait a minute and a half, in silence, for a bus that accepts the connection and never answers.

struct BusCloser {
  void operator()(sd_bus* bus) const;
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;

struct MessageReleaser {
  void operator()(sd_bus_message* message) const;
};
using Message = std::unique_ptr<sd_bus_message, MessageReleaser>;

inline constexpr const char* kSystemdDestination = "org.freedesktop.systemd1";
inline constexpr const char* kSystemdPath = "/org/freedesktop/systemd1";
inline constexpr const char* kSystemdManager = "org.freedesktop.systemd1.Manager";

// Returns zero once the deadline has passed.
std::uint64_t microsecondsUntil(std::chrono::steady_clock::time_point deadline);

// Waits until an opened or started bus is ready. Returns a negative errno on failure, -ETIMEDOUT
// when the deadline passes.
int waitUntilReady(sd_bus& bus, std::chrono::steady_clock::time_point deadline);

}  // namespace keel
