// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "tools/session.h"

// keelctl subscribe.

namespace keel {

struct SubscribeOptions {
  std::vector<std::string> names;
  std::vector<std::string> command;  // run for each event; empty: events are written to the output
  std::size_t count = 0;             // number of events after which it ends; 0: unlimited
  bool reconnect = false;
};

int subscribeCommand(Console& console, const CommonOptions& common,
                     const SubscribeOptions& options);

}  // namespace keel
