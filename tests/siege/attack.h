// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "tests/siege/flood.h"

// The attacks of one user without rights. Each is a mistake or a trick that a client can afford:
// what is sent is prebuilt, so it costs the attacker less than the daemon.

namespace keel::siege {

struct AttackPlan {
  std::string notifyPath{};
  std::string authPath{};
  std::string victimName{};  // a name that another user publishes
  std::string ownName{};     // prefix of the names that the attacker uses; another one per attacker
  std::size_t connectionCount = 0;
  std::size_t nameCount = 20;  // of a crowd
  std::chrono::milliseconds duration{5000};

  Deadline end() const { return std::chrono::steady_clock::now() + duration; }
};

struct Attack {
  std::string_view name;
  std::string_view description;
  std::size_t connectionCount;
  FloodOutcome (*run)(const AttackPlan& plan);
};

// Requests, one-way messages and bytes at full speed.
std::span<const Attack> floodAttacks();
// What the daemon has to hold for somebody.
std::span<const Attack> holdingAttacks();
// Connections that come and go.
std::span<const Attack> connectionAttacks();

// How long the connections of an attack may take to come about. It begins once they have.
inline constexpr std::chrono::seconds kConnectPatience{20};

// Adds `plan.connectionCount` streams that `make` describes by their index, as far as the daemon
// accepts them in time, and then lets all of them run for the duration of the attack.
template <class Make>
FloodOutcome runStreams(const AttackPlan& plan, Make make) {
  const Deadline connected = std::chrono::steady_clock::now() + kConnectPatience;
  Flood flood;
  for (std::size_t i = 0; i < plan.connectionCount; ++i) {
    if (!flood.add(make(i), connected)) break;
  }
  flood.run(plan.end());
  return flood.outcome();
}

}  // namespace keel::siege
