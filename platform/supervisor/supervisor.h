// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

namespace keel {

// Under which a command is given to the service manager. Opaque; made and understood by a
// Supervisor alone.
class QZCommandAuthorization;

// What keeld asks of the service manager of this system: jobs by their label, made from a
// dictionary with launchd's keys. Called during start-up on the main thread, and may block, each
// call only up to a deadline of its own.
//
// Each operation takes a null authorization, which stands for the daemon's own right as root.
// `error` may be null; a failure writes it, success leaves it untouched.
class Supervisor {
 public:
  virtual ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // The credentials may all be null. Never null.
  virtual std::shared_ptr<QZCommandAuthorization>
  QZSupervisorCreateCommandAuthorizationWithCredentials(const void* first, const void* second,
                                                        const void* third) = 0;

  // Whether a job of that label exists and is enabled. A job that does not exist is not enabled,
  // and that is no error. A null label is an error.
  virtual bool QZSupervisorGetServiceEnabled(QZCommandAuthorization* authorization,
                                             const String& label, Error* error) = 0;

  // Makes the job that `job` describes; true when it was made. `job` is a map in the order of its
  // keys, and comes from a file that anybody may have written: it may lack any key and hold any
  // kind of value under it.
  virtual bool QZSupervisorCreateService(QZCommandAuthorization* authorization, const Value& job,
                                         Error* error) = 0;

  // Enables or disables the job of that label. A null label is an error.
  virtual bool QZSupervisorSetServiceEnabled(QZCommandAuthorization* authorization,
                                             const String& label, bool enabled, Error* error) = 0;

 protected:
  Supervisor() = default;
};

// The supervisor of this system. Always the same one, made on the first call.
Supervisor& systemSupervisor();

}  // namespace keel
