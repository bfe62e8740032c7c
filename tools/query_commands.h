// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/dump_entry.h"
#include "client/module_jobs.h"
#include "platform/bundle/job_description.h"
#include "tools/session.h"

// keelctl dump, modules, authcheck: one question, one answer.

namespace keel {

int dumpCommand(Console& console, const CommonOptions& common, const std::string& name,
                bool withData);
int modulesCommand(Console& console, const CommonOptions& common);
// `auditSession` none: that of this process.
int authCheckCommand(Console& console, const CommonOptions& common, const std::string& user,
                     std::optional<std::int32_t> auditSession);

// What modules says of a job, to a person and to a program.
std::string shownJob(const JobState& job);
std::string jsonOfJob(const JobState& job, JsonLetters letters);

// What modules says of where a job comes from, going by the bundle as it is now: to a person a line
// without its end, empty for a job of the bundle's own; to a program two members.
std::string shownSynthesis(const std::string& module, const JobDescription& description);
std::string jsonOfSynthesis(const JobDescription& description, JsonLetters letters);

// What dump writes for a person, and for a program: one line for each item.
std::string tableOf(const std::vector<DumpEntry>& entries, bool withData, const Console& console);
std::string jsonLineOf(const DumpEntry& entry, bool withData, JsonLetters letters);

}  // namespace keel
