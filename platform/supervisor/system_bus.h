// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

struct sd_bus;
struct sd_bus_message;

namespace keel {

// A connection over which systemd is asked, the words in which it is, and how to wait for it no
// longer than until a deadline. The library would wait for somebody who lets it in, and is silent
// then, for a minute and a half.

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

// Zero when it has passed.
std::uint64_t microsecondsUntil(std::chrono::steady_clock::time_point deadline);

// Waits until a bus that was opened, or started, can be used. A negative errno when it cannot;
// -ETIMEDOUT: not by then.
int waitUntilReady(sd_bus& bus, std::chrono::steady_clock::time_point deadline);

}  // namespace keel
