// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <map>
#include <memory>
#include <string>

#include "platform/supervisor/command_authorization.h"
#include "platform/supervisor/embedded_job.h"
#include "platform/supervisor/supervisor.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

// keeld as its own service manager, where no other runs: in a container, for example. Its jobs live
// and die with keeld. The operations are called on one thread; the jobs live on the reactor's.
//
// Takes the lock of the jobs before anything else (jobs_lock.h). Without it each operation is
// refused with the reason, and what the keeld that has it made stays as it is.
class EmbeddedSupervisor final : public Supervisor {
 public:
  explicit EmbeddedSupervisor(EmbeddedJob::World world);
  // The jobs end on their own thread, later.
  ~EmbeddedSupervisor() override;

  std::shared_ptr<QZCommandAuthorization> QZSupervisorCreateCommandAuthorizationWithCredentials(
      const void* first, const void* second, const void* third) override;
  bool QZSupervisorGetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     Error* error) override;
  // A job of that label that is there already is ended and replaced. A Mach service that another
  // job has is refused.
  bool QZSupervisorCreateService(QZCommandAuthorization* authorization, const Value& job,
                                 Error* error) override;
  // Makes the sockets, and starts what is to run from the beginning. Disabling a job ends it.
  bool QZSupervisorSetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     bool enabled, Error* error) override;

 private:
  struct Entry {
    Job job;
    std::shared_ptr<EmbeddedJob> enabled;  // null when it is not
  };

  const EmbeddedJob::World world_;
  const std::expected<FileDescriptor, Error> lock_;
  LastRefusal lastRefusal_;
  std::map<std::string, Entry, std::less<>> entriesByLabel_;
  std::map<std::string, std::string, std::less<>> labelsByMachService_;
};

}  // namespace keel
