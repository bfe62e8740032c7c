// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/supervisor/job.h"
#include "platform/supervisor/job_records.h"
#include "platform/supervisor/process_launcher.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/transport/service_socket.h"

namespace keel {

// One enabled job where keeld itself is the service manager: owns the job's sockets, starts its
// program on the first connection, and polls the sockets again once the program has exited. A
// program that fails, or exits with connections still pending, is throttled: the next start waits
// until ThrottleInterval after the last one.
//
// Lives on the reactor's thread except where stated. Whatever may block, such as starting the
// program, runs on a worker, on the job's own queue: jobs never wait for each other.
class EmbeddedJob final : private Reactor::Watcher,
                          public std::enable_shared_from_this<EmbeddedJob> {
 public:
  // A job's surroundings. The executors are borrowed.
  struct World {
    std::string serviceDirectory;
    Reactor& reactor;
    Executor& workers;
    std::shared_ptr<JobRecords> records;
    std::function<Reactor::Clock::time_point()> now = &Reactor::Clock::now;
  };
  // Lower bound of ThrottleInterval; anything shorter would flood the log.
  static constexpr std::chrono::seconds kMinPause{1};
  // Unthrottled restarts after a clean exit with connections still pending.
  static constexpr int kFreeStarts = 5;
  // Default delay between SIGTERM and SIGKILL.
  static constexpr std::chrono::seconds kExitTimeOut{20};

  // Creates the sockets, replacing whatever has their paths, such as a socket still held by a
  // program of an earlier keeld. Fails if any cannot be created. From any thread.
  static std::expected<std::shared_ptr<EmbeddedJob>, Error> create(Job job, World world);
  ~EmbeddedJob();

  // From any thread.
  void begin();
  // Removes the sockets immediately, so that another job can take their paths, then terminates the
  // program for good. From the thread that created the job. The job keeps itself alive until its
  // program has exited.
  void end();

 private:
  enum class State : std::uint8_t { idle, waiting, starting, running, pausing, ended };
  // Watches for the process's exit; separate because the job itself watches its sockets.
  struct ProcessWatcher final : Reactor::Watcher {
    explicit ProcessWatcher(EmbeddedJob& owner) : job(owner) {}
    void onReady(std::uint32_t events) override;
    EmbeddedJob& job;
  };

  EmbeddedJob(Job job, World world, std::vector<xpc::ServiceSocket> sockets);

  void onReady(std::uint32_t events) override;
  void wait();
  void stopWaiting();
  void start();
  void started(std::expected<LaunchedProcess, Error> launched);
  void processEnded();
  void settle(bool succeeded, bool crashed);
  Reactor::Clock::duration pauseInterval() const;
  void pauseThen(void (EmbeddedJob::*next)());
  bool isDemanded() const;
  bool wantsRestart(bool succeeded, bool crashed) const;
  void removePaths();
  void endProgram();
  void signalProgram(int signal);
  void finish();
  void record(JobState::Program program);

  const Job job_;
  const World world_;
  const std::shared_ptr<SerialQueue> slowWork_;
  std::vector<xpc::ServiceSocket> sockets_;
  std::vector<NamedSocket> namedSockets_;
  State state_ = State::idle;
  std::vector<std::string> ownedPaths_;  // of the sockets; never used on the reactor's thread
  bool ending_ = false;
  std::shared_ptr<EmbeddedJob> self_;  // set while the program is exiting
  LaunchedProcess process_;
  std::string problem_;  // of the last run; empty if it exited cleanly or still runs
  ProcessWatcher processWatcher_;
  Reactor::Clock::time_point lastStart_{};
  int consecutiveStarts_ = 0;  // each within one pause of the previous
  Reactor::TimerId timer_ = 0;
};

}  // namespace keel
