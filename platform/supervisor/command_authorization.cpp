// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/command_authorization.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <span>

#include "platform/logging/logger.h"
#include "platform/supervisor/supervisor_error.h"

namespace keel {

namespace {

// A file can have any number of keys; more than this tells nobody more.
constexpr std::size_t kNamedKeyCount = 20;

}  // namespace

std::shared_ptr<QZCommandAuthorization> makeCommandAuthorization() {
  return std::make_shared<QZCommandAuthorization>();
}

std::optional<Error> errorOfLabel(const String& label) {
  if (label.isNull()) return supervisorError(EINVAL, "a job without a label cannot be");
  const std::string problem = problemOfJobLabel(std::string(label.view()));
  if (problem.empty()) return std::nullopt;
  return supervisorError(EINVAL, "the job " + problem);
}

void logUnsupportedKeys(const Job& job) {
  if (job.unsupported.empty()) return;
  const auto named = std::span(job.unsupported).first(std::min(job.unsupported.size(), kNamedKeyCount));
  _loggerForCategory("startup").error("the job {} has keys without a counterpart here, which are left out: {}{}", job.label,
                                      fmt::join(named, ", "), named.size() < job.unsupported.size() ? ", ..." : "");
}

}  // namespace keel
