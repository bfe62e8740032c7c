// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/command_authorization.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include "platform/supervisor/supervisor_error.h"
#include "runtime/foundation/utf8.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

// Bounds the log line: a file can have any number of keys.
constexpr std::size_t kNamedKeyCount = 20;

}  // namespace

std::shared_ptr<QZCommandAuthorization> makeCommandAuthorization() {
  return std::make_shared<QZCommandAuthorization>();
}

std::optional<Error> errorOfLabel(const String& label) {
  if (label.isNull()) return supervisorError(EINVAL, "a job without a label is not allowed");
  const std::string problem = problemOfJobLabel(std::string(label.view()));
  if (problem.empty()) return std::nullopt;
  return supervisorError(EINVAL, "the job " + problem);
}

bool LastRefusal::note(const Value& dictionary, Error* error, Error problem) {
  const std::string_view label = dictionary.textOf("Label");
  label_ = isUtf8(label) ? String(label) : String();
  problem_ = problem;
  return refuse(error, std::move(problem));
}

Error LastRefusal::reasonFor(const String& label, const Error& otherwise) const {
  return problem_ && label == label_ ? problem_ : otherwise;
}

void logUnsupportedKeys(const Job& job) {
  if (job.unsupported.empty()) return;
  const auto named =
      std::span(job.unsupported).first(std::min(job.unsupported.size(), kNamedKeyCount));
  _loggerForCategory("startup").error(
      "the job {} has keys without a counterpart here, which are ignored: {}{}", job.label,
      fmt::join(named, ", "), named.size() < job.unsupported.size() ? ", ..." : "");
}

}  // namespace keel
