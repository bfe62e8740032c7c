// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/dump_entry.h"
#include "client/module_jobs.h"
#include "platform/bundle/job_description.h"
#include "tools/session.h"

// keelctl dump, modules, authcheck: one request, one answer.

namespace keel {

int dumpCommand(Console& console, const CommonOptions& common, const std::string& name,
                bool withData);
int modulesCommand(Console& console, const CommonOptions& common);
// Without `auditSession`, uses this process's.
int authCheckCommand(Console& console, const CommonOptions& common, const std::string& user,
                     std::optional<std::int32_t> auditSession);

// Return the description of a job in the output of modules, as text and as JSON.
std::string shownJob(const JobState& job);
std::string jsonOfJob(const JobState& job, JsonLetters letters);

// Return the origin of a job in the output of modules, according to the bundle's present state: as
// text, one line without its newline, empty for a job from the bundle; as JSON, two members.
std::string shownSynthesis(const std::string& module, const JobDescription& description);
std::string jsonOfSynthesis(const JobDescription& description, JsonLetters letters);

// Return the output of dump, as text and as JSON, one line per item.
std::string tableOf(const std::vector<DumpEntry>& entries, bool withData, const Console& console);
std::string jsonLineOf(const DumpEntry& entry, bool withData, JsonLetters letters);

}  // namespace keel
