// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/job_description.h"

#include <fmt/format.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& logger() {
  static Logger& bundles = _loggerForCategory("bundle");
  return bundles;
}

// Every error of this folder has a description.
std::string textOf(const Error& error) {
  return std::string(error.userInfo().value().textOf(NSLocalizedDescriptionKey));
}

void addProblem(JobDescription& description, const Bundle& bundle, std::string problem) {
  logger().debug("{}: {}", bundle.path(), problem);
  description.reasons.push_back(std::move(problem));
}

void readJobFile(const Bundle& bundle, JobDescription& description) {
  const auto path = bundle.pathForResource("launchd", "plist");
  if (!path) {
    const bool isThere = bundle.isThere();
    description.jobFile =
        isThere ? JobDescription::JobFile::missing : JobDescription::JobFile::noBundle;
    description.reasons.emplace_back(isThere ? "job file missing" : "bundle missing");
    return;
  }
  auto job = readDictionary(*path);
  if (!job) {
    const bool denied = job.error().code() == EACCES || job.error().code() == EPERM;
    description.jobFile =
        denied ? JobDescription::JobFile::denied : JobDescription::JobFile::unusable;
    return addProblem(description, bundle, "job file: " + textOf(job.error()));
  }
  description.jobFile = JobDescription::JobFile::used;
  description.job = std::move(*job);
  if (const Value* services = description.job.find("MachServices");
      services != nullptr && !services->isMap()) {
    logger().debug("{}: job file: \"MachServices\" is no dictionary", bundle.path());
  }
}

void readInfo(const Bundle& bundle, JobDescription& description) {
  const auto info = bundle.infoDictionary();
  if (!info) return addProblem(description, bundle, "Info.plist: " + textOf(info.error()));
  const auto text = [&](std::string_view key) -> std::optional<std::string> {
    const Value* value = info->find(key);
    if (value == nullptr) return {};
    if (const auto* found = value->as<std::string>()) return *found;
    addProblem(description, bundle, fmt::format("Info.plist: \"{}\" is no text", key));
    return {};
  };
  description.label = text("QZJobLabel");
  description.machServiceName = text("QZMachServiceName");
}

}  // namespace

JobDescription readJobDescription(const Bundle& bundle) {
  JobDescription description;
  readJobFile(bundle, description);
  if (description.jobFile != JobDescription::JobFile::used) readInfo(bundle, description);
  return description;
}

}  // namespace keel
