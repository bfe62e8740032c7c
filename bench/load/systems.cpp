// SPDX-License-Identifier: Apache-2.0
#include "bench/load/systems.h"

#include <fmt/format.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace keel::bench {

std::unique_ptr<System> systemOfName(std::string_view name, std::size_t payloadBytes) {
  using Make = std::unique_ptr<System> (*)(std::string);
  static constexpr std::array<std::pair<std::string_view, Make>, 7> kSystems{{
      {"relay", relaySystem},
      {"keeld", keeldSystem},
      {"redis", redisSystem},
      {"nats", natsSystem},
      {"mosquitto", mosquittoSystem},
      {"zeromq", zeromqSystem},
      {"dbus", dbusSystem},
  }};
  // Letters, so that a system that parses its payloads has nothing to escape.
  std::string payload(payloadBytes, ' ');
  for (std::size_t place = 0; place < payload.size(); ++place)
    payload[place] = static_cast<char>('a' + place % 26);
  for (const auto& [known, make] : kSystems) {
    if (known == name) return make(std::move(payload));
  }
  throw std::runtime_error(fmt::format("no system is called {}", name));
}

}  // namespace keel::bench
