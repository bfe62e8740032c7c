// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/bundle/bundle.h"
#include "runtime/foundation/value.h"

namespace keel {

// A module's job as its bundle describes it. The bundle is not trusted: a file that cannot be read,
// or a value of the wrong kind, counts as missing.
struct JobDescription {
  enum class JobFile : std::uint8_t {
    used,
    missing,
    noBundle,  // nothing exists at the bundle's path
    unusable,  // not a regular file, too large, no property list, no dictionary
    denied,    // not readable by this process; perhaps by another
  };

  JobFile jobFile = JobFile::missing;
  // The dictionary in the resource launchd.plist, unchanged; null unless the file is used.
  Value job{};
  // "QZJobLabel" and "QZMachServiceName" of Info.plist, which is not read if there is a job.
  std::optional<std::string> label{};
  std::optional<std::string> machServiceName{};
  // Without a job, for display: why there is none ("bundle missing", "job file missing", "job file:
  // ..."), then what is ignored in Info.plist.
  std::vector<std::string> reasons{};
};

// Reads the files. Logs what it cannot use, at debug level in the category "bundle".
JobDescription readJobDescription(const Bundle& bundle);

}  // namespace keel
