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

// One enabled job where keeld itself is the service manager: holds the job's sockets, starts its
// program when somebody connects, and looks at the sockets again when the program has ended. A
// program that fails, or leaves whoever waits for it waiting, is given a pause before the next
// start: ThrottleInterval, counted from its last start.
//
// Lives on the reactor's thread, but for what says otherwise. What may block, such as the start of
// its program, is done by a worker, on a queue of the job's own: one job never waits for another.
class EmbeddedJob final : private Reactor::Watcher,
                          public std::enable_shared_from_this<EmbeddedJob> {
 public:
  // Where a job runs, and how it is seen. Executors are borrowed.
  struct World {
    std::string serviceDirectory;
    Reactor& reactor;
    Executor& workers;
    std::shared_ptr<JobRecords> records;
    std::function<Reactor::Clock::time_point()> now = &Reactor::Clock::now;
  };
  // A pause is never shorter, whatever the job says: nobody could read the log.
  static constexpr std::chrono::seconds kLeastPause{1};
  // How often it may end well without having served everybody, before it is given a pause.
  static constexpr int kFreeStarts = 5;
  // Between SIGTERM and SIGKILL, unless the job says otherwise.
  static constexpr std::chrono::seconds kExitTimeOut{20};

  // Makes the sockets in place of whatever has their names, such as one that a program of an
  // earlier keeld still holds; fails when one cannot be had. From any thread.
  static std::expected<std::shared_ptr<EmbeddedJob>, Error> create(Job job, World world);
  ~EmbeddedJob();

  // From any thread.
  void begin();
  // Removes the sockets at once, so that another job can have their names, and then ends the
  // program, for good. From the thread that made the job. A job whose program is still ending keeps
  // itself.
  void end();

 private:
  enum class State : std::uint8_t { idle, waiting, starting, running, pausing, ended };
  // Its process has ended; a watcher of its own, since a job watches its sockets, too.
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
  std::vector<std::string> ownedPaths_;  // of the sockets; not touched by the reactor's thread
  bool ending_ = false;
  std::shared_ptr<EmbeddedJob> self_;  // while the program is ending
  LaunchedProcess process_;
  std::string problem_;  // with the last run; empty when it ended well, or goes on
  ProcessWatcher processWatcher_;
  Reactor::Clock::time_point lastStart_{};
  int startsInARow_ = 0;  // with less than a pause between them
  Reactor::TimerId timer_ = 0;
};

}  // namespace keel
