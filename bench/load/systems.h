// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "bench/load/system.h"

// Factories of the systems compared, each in its own file.

namespace keel::bench {

std::unique_ptr<System> relaySystem(std::string payload);
std::unique_ptr<System> keeldSystem(std::string payload);
std::unique_ptr<System> redisSystem(std::string payload);
std::unique_ptr<System> natsSystem(std::string payload);
std::unique_ptr<System> mosquittoSystem(std::string payload);
std::unique_ptr<System> zeromqSystem(std::string payload);
std::unique_ptr<System> dbusSystem(std::string payload);

}  // namespace keel::bench
