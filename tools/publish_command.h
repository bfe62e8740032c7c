// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "tools/session.h"

// keelctl publish, update, remove.

namespace keel {

struct PublishOptions {
  std::string name;
  std::string json;  // "-": lines of standard input, the first to publish and the others to update
  std::uint64_t flags = 0;
  std::int64_t value = 0;
  std::size_t count = 0;  // versions after which it ends; 0 for no end
  bool reconnect = false;
};

// Publishes and stays: an item is published as long as its publisher's connection lasts.
int publishCommand(Console& console, const CommonOptions& common, const PublishOptions& options);

// Both ask on a connection of their own, and report what keeld says to that.
int updateCommand(Console& console, const CommonOptions& common, const std::string& name,
                  const std::string& json);
int removeCommand(Console& console, const CommonOptions& common, const std::string& name);

}  // namespace keel
