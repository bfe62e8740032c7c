// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <vector>

#include "platform/supervisor/job.h"
#include "runtime/foundation/value.h"

// Reads the keys of a job's dictionary. Each error completes a sentence that begins with the key.

namespace keel {

// Stores the `value` of `key` in `job`; unknown keys are added to `unsupported`.
std::expected<void, std::string> readJobKey(const std::string& key, const Value& value, Job& job);

// Resolves keys that depend on each other, once all are read.
void settleJob(Job& job);

// Returns true for UTF-8 without NUL.
bool isJobText(const std::string& text);

// Reads an array of strings.
std::expected<void, std::string> readTexts(const Value& value, std::vector<std::string>& texts);

// Reads an absolute path that fits on a unit file's line: no control characters, and no trailing
// blank or backslash.
std::expected<void, std::string> readPath(const Value& value, std::string& path);

}  // namespace keel
