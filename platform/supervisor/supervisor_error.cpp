// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/supervisor_error.h"

#include <utility>

#include "runtime/foundation/value.h"

namespace keel {

Error supervisorError(int problem, std::string description) {
  return Error(
      NSPOSIXErrorDomain, problem,
      Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), std::move(description)}})));
}

bool refuse(Error* error, Error problem) {
  if (error != nullptr) *error = std::move(problem);
  return false;
}

}  // namespace keel
