// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

namespace keel::siege {

struct CrowdPlan {
  std::string path;  // of the notify service's socket
  std::string namePrefix = "siege.crowd.";
  std::size_t nameCount = 20;
  std::size_t followerCount = 5000;  // over all names
  std::size_t itemBytes = 4000;
  std::chrono::seconds duration{5};
};

struct CrowdOutcome {
  std::size_t endedCount = 0;  // connections that the daemon ended
  std::uint64_t replyCount = 0;
  std::uint64_t deliveryCount = 0;
};

// Publishes every name from a separate connection and pipelines updates as fast as they are
// answered, while one thread reads for all followers: more is sent to them than it can read.
// Throws std::system_error if it cannot connect.
CrowdOutcome runCrowd(const CrowdPlan& plan);

}  // namespace keel::siege
