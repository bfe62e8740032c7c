// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>

#include "platform/supervisor/job.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

// What both supervisors have in common.

namespace keel {

class QZCommandAuthorization {};

// keeld acts as root, and nobody else asks; so there is nothing in it.
std::shared_ptr<QZCommandAuthorization> makeCommandAuthorization();

// Why no job can have that label, if none can.
std::optional<Error> errorOfLabel(const String& label);

// Why the last job could not be made: whoever asks for a job that is not there wants to know.
class LastRefusal {
 public:
  // Remembers it, and writes it where the caller wants it, as refuse() does.
  bool note(const Value& dictionary, Error* error, Error problem);
  // `otherwise`, or why the job of that label was not made when that is what happened last.
  Error reasonFor(const String& label, const Error& otherwise) const;

 private:
  String label_;
  Error problem_;
};

// One line in the log for a job with keys that have no counterpart.
void logUnsupportedKeys(const Job& job);

}  // namespace keel
