// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

namespace keel {

// Authorizes a command to the service manager. Opaque; created and read by a Supervisor only.
class QZCommandAuthorization;

// keeld's interface to the system's service manager: jobs by label, created from a dictionary with
// launchd's keys. Called during start-up on the main thread. Each call may block, up to its own
// deadline.
//
// Each operation accepts a null authorization, which stands for the daemon's own right as root.
// `error` may be null; set on failure, untouched on success.
class Supervisor {
 public:
  virtual ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // The credentials may all be null. Never returns null.
  virtual std::shared_ptr<QZCommandAuthorization>
  QZSupervisorCreateCommandAuthorizationWithCredentials(const void* first, const void* second,
                                                        const void* third) = 0;

  // Returns true if a job of that label exists and is enabled. A missing job is not enabled, and
  // not an error. A null label is an error.
  virtual bool QZSupervisorGetServiceEnabled(QZCommandAuthorization* authorization,
                                             const String& label, Error* error) = 0;

  // Creates the job that `job` describes; returns true on success. `job` is a map in key order,
  // from a file that is not trusted: any key may be missing, any value may be of any kind.
  virtual bool QZSupervisorCreateService(QZCommandAuthorization* authorization, const Value& job,
                                         Error* error) = 0;

  // Enables or disables the job of that label. A null label is an error.
  virtual bool QZSupervisorSetServiceEnabled(QZCommandAuthorization* authorization,
                                             const String& label, bool enabled, Error* error) = 0;

 protected:
  Supervisor() = default;
};

// Returns this system's supervisor: always the same object, created on the first call.
Supervisor& systemSupervisor();

}  // namespace keel
