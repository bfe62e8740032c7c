// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "tools/session.h"

// keelctl publish, update, remove.

namespace keel {

struct PublishOptions {
  std::string name;
  std::string json;  // "-": standard input; the first line is published, the others are updates
  std::uint64_t flags = 0;
  std::int64_t value = 0;
  std::size_t count = 0;  // number of versions after which it ends; 0: unlimited
  bool reconnect = false;
};

// Publishes and keeps running: an item stays published as long as its publisher's connection lasts.
int publishCommand(Console& console, const CommonOptions& common, const PublishOptions& options);

// Send the request on a new connection and report keeld's answer.
int updateCommand(Console& console, const CommonOptions& common, const std::string& name,
                  const std::string& json);
int removeCommand(Console& console, const CommonOptions& common, const std::string& name);

}  // namespace keel
