// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/bundle/bundle.h"
#include "runtime/foundation/value.h"

namespace keel {

// What a module's bundle says of the module's job. Who made the bundle is not trusted: a file that
// cannot be read, or a value of the wrong kind, counts as if it were not there.
struct JobDescription {
  enum class JobFile : std::uint8_t {
    used,
    missing,
    noBundle,  // nothing is at the bundle's path
    unusable,  // no regular file, too large, no property list, no dictionary
    denied,    // this process may not read it; another one may
  };

  JobFile jobFile = JobFile::missing;
  // The dictionary in the resource launchd.plist, as it stands; null unless the file is used.
  Value job{};
  // "QZJobLabel" and "QZMachServiceName" of Info.plist, which is not read when there is a job.
  std::optional<std::string> label{};
  std::optional<std::string> machServiceName{};
  // Without a job, for people: why there is none ("bundle missing", "job file missing", "job file:
  // ..."), then what of Info.plist is not used.
  std::vector<std::string> reasons{};
};

// Reads the files as they are now. What cannot be used is logged, at debug level in the category
// "bundle".
JobDescription readJobDescription(const Bundle& bundle);

}  // namespace keel
