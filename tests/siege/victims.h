// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace keel::siege {

struct VictimsPlan {
  std::string notifyPath;
  std::string authPath;
  std::string name = "siege.victim";
  std::size_t followerCount = 5;
  std::chrono::seconds arrivalPatience{5};
};

// Serves as the measured part of a siege: publishes a name 1,000 times a second on one connection
// and follows it on others, whatever becomes of the answers; asks the auth service something every
// 10 ms, and connects anew every 50 ms. Prints "ready" once all of that works. Each line on
// standard input opens the next period: the first one the attack, the second one what comes after
// it. The third one ends it all: what is still under way gets 5 seconds more to arrive, and then
// one line of JSON has the times and counts of both periods.
//
// Times run from the moment that an update was queued on this side, which never waits for the
// daemon. Throws std::system_error when it cannot connect, and std::runtime_error when it is not
// served before the attack.
void runVictims(const VictimsPlan& plan);

}  // namespace keel::siege
