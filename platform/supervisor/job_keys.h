// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <vector>

#include "platform/supervisor/job.h"
#include "runtime/foundation/value.h"

// How the keys of a job's dictionary are read. Each refusal completes the sentence that begins with
// the key.

namespace keel {

// Puts what `value` says under `key` into `job`; a key that is not known goes to the unsupported
// ones.
std::expected<void, std::string> readJobKey(const std::string& key, const Value& value, Job& job);

// What several keys say together; when all are read.
void settleJob(Job& job);

// UTF-8 without NUL.
bool isJobText(const std::string& text);

// An array of texts.
std::expected<void, std::string> readTexts(const Value& value, std::vector<std::string>& texts);

// An absolute path that can be written on a line: without control characters, and without a blank
// or a backslash at its end.
std::expected<void, std::string> readPath(const Value& value, std::string& path);

}  // namespace keel
