// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/supervisor/embedded_job.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& logger() {
  static Logger& runtime = _loggerForCategory("runtime");
  return runtime;
}

std::string shownEnd(const siginfo_t& end) {
  if (end.si_pid == 0) return "exited, and its status was lost";
  if (end.si_code == CLD_EXITED) return fmt::format("exited with status {}", end.si_status);
  return fmt::format("was killed by signal {} ({})", end.si_status, ::strsignal(end.si_status));
}

}  // namespace

std::expected<std::shared_ptr<EmbeddedJob>, Error> EmbeddedJob::create(Job job, World world) {
  std::vector<xpc::ServiceSocket> sockets;
  for (const std::string& name : job.machServices) {
    auto socket = xpc::listenForService(world.serviceDirectory, name, xpc::ServedSocket::replaced);
    if (!socket) {
      for (const auto& made : sockets) {
        if (made.ownsPath) ::unlink(made.path.c_str());
      }
      return std::unexpected(socket.error());
    }
    sockets.push_back(std::move(*socket));
  }
  return std::shared_ptr<EmbeddedJob>(
      new EmbeddedJob(std::move(job), std::move(world), std::move(sockets)));
}

EmbeddedJob::EmbeddedJob(Job job, World world, std::vector<xpc::ServiceSocket> sockets)
    : job_(std::move(job)),
      world_(std::move(world)),
      slowWork_(SerialQueue::create("KLNJobQueue", world_.workers)),
      sockets_(std::move(sockets)),
      processWatcher_(*this) {
  for (std::size_t place = 0; place < sockets_.size(); ++place) {
    namedSockets_.push_back({job_.machServices[place], sockets_[place].descriptor.get()});
    if (sockets_[place].ownsPath) ownedPaths_.push_back(sockets_[place].path);
  }
}

EmbeddedJob::~EmbeddedJob() {
  removePaths();
}

void EmbeddedJob::removePaths() {
  for (const std::string& path : std::exchange(ownedPaths_, {})) ::unlink(path.c_str());
}

void EmbeddedJob::begin() {
  world_.reactor.post([self = shared_from_this()] {
    if (self->job_.runAtLoad) return self->start();
    self->wait();
  });
}

void EmbeddedJob::wait() {
  state_ = State::waiting;
  for (const auto& socket : sockets_) world_.reactor.watch(socket.descriptor.get(), EPOLLIN, *this);
  record(problem_.empty() ? JobState::Program::none : JobState::Program::failed);
}

void EmbeddedJob::stopWaiting() {
  if (state_ != State::waiting) return;
  for (const auto& socket : sockets_) world_.reactor.unwatch(socket.descriptor.get(), *this);
  state_ = State::idle;
}

void EmbeddedJob::onReady(std::uint32_t) {
  start();
}

void EmbeddedJob::start() {
  stopWaiting();
  state_ = State::starting;
  const auto former = std::exchange(lastStart_, world_.now());
  if (lastStart_ - former >= pauseInterval()) consecutiveStarts_ = 0;
  ++consecutiveStarts_;
  slowWork_->async([self = shared_from_this()] {
    auto launched = std::make_shared<std::expected<LaunchedProcess, Error>>(
        launch(self->job_, self->namedSockets_));
    Reactor& reactor = self->world_.reactor;
    reactor.post([self, launched] { self->started(std::move(*launched)); });
  });
}

void EmbeddedJob::started(std::expected<LaunchedProcess, Error> launched) {
  if (!launched) {
    logger().error("{}", launched.error());
    problem_ = launched.error().description();
    return settle(/*succeeded=*/false, /*crashed=*/false);
  }
  process_ = std::move(*launched);
  state_ = State::running;
  logger().debug("the job {} runs as process {}", job_.label, process_.pid);
  world_.reactor.watch(process_.pidfd.get(), EPOLLIN, processWatcher_);
  problem_.clear();
  record(JobState::Program::running);
  if (ending_) endProgram();
}

void EmbeddedJob::ProcessWatcher::onReady(std::uint32_t) {
  const auto self = job.shared_from_this();
  self->processEnded();
}

void EmbeddedJob::processEnded() {
  siginfo_t end{};
  const bool isOurs =
      ::waitid(P_PID, static_cast<id_t>(process_.pid), &end, WEXITED | WNOHANG | WNOWAIT) == 0;
  if (isOurs && end.si_pid == 0) return;
  if (isOurs) {
    // Kill its process group, too. Until it is reaped the group id cannot be reused.
    if (!job_.abandonProcessGroup) ::kill(-process_.pid, SIGKILL);
    ::waitid(P_PID, static_cast<id_t>(process_.pid), &end, WEXITED);
  }
  world_.reactor.unwatch(process_.pidfd.get(), processWatcher_);
  process_ = LaunchedProcess();
  const bool succeeded = end.si_code == CLD_EXITED && end.si_status == 0;
  if (succeeded || ending_) {
    logger().debug("the job {} {}", job_.label, shownEnd(end));
  } else {
    logger().error("the job {} {}", job_.label, shownEnd(end));
    problem_ = "it " + shownEnd(end);
  }
  settle(succeeded, isOurs && end.si_code != CLD_EXITED && end.si_status != SIGTERM);
}

// Decides what follows an exit or a failed start.
void EmbeddedJob::settle(bool succeeded, bool crashed) {
  state_ = State::idle;
  if (ending_) return finish();
  if (wantsRestart(succeeded, crashed)) return pauseThen(&EmbeddedJob::start);
  // A well-behaved program, too, leaves a client that connects during its exit pending; but one
  // that never accepts would be restarted forever.
  if (succeeded && (!isDemanded() || consecutiveStarts_ < kFreeStarts)) return wait();
  pauseThen(&EmbeddedJob::wait);
}

Reactor::Clock::duration EmbeddedJob::pauseInterval() const {
  return std::max<std::chrono::seconds>(job_.throttleInterval, kMinPause);
}

void EmbeddedJob::pauseThen(void (EmbeddedJob::*next)()) {
  const auto left = lastStart_ + pauseInterval() - world_.now();
  if (left <= Reactor::Clock::duration::zero()) return (this->*next)();
  state_ = State::pausing;
  record(JobState::Program::starting);
  timer_ = world_.reactor.after(left, [self = shared_from_this(), next] {
    self->timer_ = 0;
    (self.get()->*next)();
  });
}

bool EmbeddedJob::isDemanded() const {
  std::vector<pollfd> watched;
  for (const auto& socket : sockets_) watched.push_back({socket.descriptor.get(), POLLIN, 0});
  return ::poll(watched.data(), watched.size(), 0) > 0;
}

bool EmbeddedJob::wantsRestart(bool succeeded, bool crashed) const {
  switch (job_.restart) {
    case Job::Restart::never:
      return false;
    case Job::Restart::always:
      return true;
    case Job::Restart::afterSuccess:
      return succeeded;
    case Job::Restart::afterFailure:
      return !succeeded;
    case Job::Restart::afterCrash:
      return crashed;
  }
  return false;
}

void EmbeddedJob::end() {
  removePaths();
  world_.reactor.post([self = shared_from_this()] {
    if (std::exchange(self->ending_, true)) return;
    for (const std::string& name : self->job_.machServices) {
      self->slowWork_->async([records = self->world_.records, name] { records->remove(name); });
    }
    if (self->state_ == State::running) return self->endProgram();
    // A program still being started is terminated once that completes.
    if (self->state_ != State::starting) self->finish();
  });
}

void EmbeddedJob::endProgram() {
  self_ = shared_from_this();
  signalProgram(SIGTERM);
}

void EmbeddedJob::signalProgram(int signal) {
  ::syscall(SYS_pidfd_send_signal, process_.pidfd.get(), signal, nullptr, 0);
  const auto patience = job_.exitTimeOut.value_or(kExitTimeOut);
  if (signal == SIGKILL || patience.count() == 0) return;
  timer_ = world_.reactor.after(patience, [self = shared_from_this()] {
    self->timer_ = 0;
    if (self->state_ == State::running) self->signalProgram(SIGKILL);
  });
}

void EmbeddedJob::finish() {
  stopWaiting();
  if (timer_ != 0) world_.reactor.cancel(std::exchange(timer_, 0));
  state_ = State::ended;
  sockets_.clear();
  self_.reset();
}

void EmbeddedJob::record(JobState::Program program) {
  // Its services may belong to another job by now.
  if (ending_) return;
  JobState state;
  state.label = job_.label;
  state.enabled = true;
  state.listening = true;
  state.program = program;
  state.processId = state_ == State::running ? process_.pid : 0;
  state.problem = problem_;
  for (const std::string& name : job_.machServices) {
    slowWork_->async([records = world_.records, name, state] { records->write(name, state); });
  }
}

}  // namespace keel
