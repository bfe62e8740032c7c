// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>

#include "platform/supervisor/job.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

// Helpers shared by both supervisors.

namespace keel {

class QZCommandAuthorization {};

// Empty: keeld acts as root and there is no other caller.
std::shared_ptr<QZCommandAuthorization> makeCommandAuthorization();

// Returns the error for a label that no job can have; nothing for a valid one.
std::optional<Error> errorOfLabel(const String& label);

// Remembers why the last job could not be created, so that a later query for the missing job can
// report the cause.
class LastRefusal {
 public:
  // Remembers `problem` and stores it in `*error`, as refuse() does.
  bool note(const Value& dictionary, Error* error, Error problem);
  // Returns the remembered reason if the last refused job had that label, else `otherwise`.
  Error reasonFor(const String& label, const Error& otherwise) const;

 private:
  String label_;
  Error problem_;
};

// Logs one line for a job with keys that have no counterpart.
void logUnsupportedKeys(const Job& job);

}  // namespace keel
