// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/client_error.h"
#include "runtime/foundation/collections.h"
#include "runtime/foundation/date.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

namespace keel {

// What the daemon knows of one name.
struct DumpEntry {
  // One who follows it.
  struct Subscriber {
    std::optional<std::string> connection;  // none when its connection is gone
    std::optional<Date> updated;            // when it was last sent something; none when never
    friend bool operator==(const Subscriber&, const Subscriber&) = default;
  };

  std::string name;
  std::optional<std::string>
      publisher;                  // the publishing connection; none when nobody publishes it now
  std::optional<Date> published;  // when its data was last replaced; none when never
  std::vector<Subscriber> subscribers;
  std::optional<Value> data;  // none when not asked for, or when there is none

  friend bool operator==(const DumpEntry&, const DumpEntry&) = default;
};

// Reads the daemon's description of its items. `refused` for anything else.
ClientResult<std::vector<DumpEntry>> readDump(const Array& description);

}  // namespace keel
