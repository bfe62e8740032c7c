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

// keeld as its own service manager where there is no other, as in a container. Its jobs end with
// keeld. Operations are called on one thread; the jobs live on the reactor's.
//
// Takes the jobs lock first (jobs_lock.h). Without it every operation is refused with the reason,
// and the jobs of the keeld that holds the lock are left alone.
class EmbeddedSupervisor final : public Supervisor {
 public:
  explicit EmbeddedSupervisor(EmbeddedJob::World world);
  // The jobs end later, on their own thread.
  ~EmbeddedSupervisor() override;

  std::shared_ptr<QZCommandAuthorization> QZSupervisorCreateCommandAuthorizationWithCredentials(
      const void* first, const void* second, const void* third) override;
  bool QZSupervisorGetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     Error* error) override;
  // Replaces an existing job of that label, ending it. Refuses a Mach service that belongs to
  // another job.
  bool QZSupervisorCreateService(QZCommandAuthorization* authorization, const Value& job,
                                 Error* error) override;
  // Enabling creates the sockets and starts a run-at-load program. Disabling ends the job.
  bool QZSupervisorSetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     bool enabled, Error* error) override;

 private:
  struct Entry {
    Job job;
    std::shared_ptr<EmbeddedJob> enabled;  // null when disabled
  };

  const EmbeddedJob::World world_;
  const std::expected<FileDescriptor, Error> lock_;
  LastRefusal lastRefusal_;
  std::map<std::string, Entry, std::less<>> entriesByLabel_;
  std::map<std::string, std::string, std::less<>> labelsByMachService_;
};

}  // namespace keel
