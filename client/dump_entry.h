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

// The daemon's record of one name.
struct DumpEntry {
  // A subscriber of the name.
  struct Subscriber {
    std::optional<std::string> connection;  // none if its connection is gone
    std::optional<Date> updated;            // date of the last update sent to it; none if never
    friend bool operator==(const Subscriber&, const Subscriber&) = default;
  };

  std::string name;
  std::optional<std::string> publisher;  // the publishing connection; none if currently unpublished
  std::optional<Date> published;         // date of the last data; none if never
  std::vector<Subscriber> subscribers;
  std::optional<Value> data;  // none if not requested or absent

  friend bool operator==(const DumpEntry&, const DumpEntry&) = default;
};

// Decodes the daemon's dump. `refused` if it is malformed.
ClientResult<std::vector<DumpEntry>> readDump(const Array& description);

}  // namespace keel
