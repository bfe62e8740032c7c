// SPDX-License-Identifier: Apache-2.0
//
// A signal that is blocked in every thread stays pending in the process, even when its disposition
// is to be ignored, and signalfd(2) takes it from there. Only signals sent to the process reach the
// source; a signal sent to one thread (raise(3), pthread_kill(3)) can be read by that thread alone.
#include "runtime/dispatch/signal_source.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <thread>
#include <utility>

#include "runtime/foundation/check.h"
#include "runtime/foundation/crash_stack.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

namespace {

sigset_t setOf(int signal) {
  sigset_t set;
  KEEL_CHECK(sigemptyset(&set) == 0 && sigaddset(&set, signal) == 0);
  return set;
}

}  // namespace

void blockSignal(int signal) {
  const sigset_t set = setOf(signal);
  KEEL_CHECK(pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0);
}

class SignalSource::Impl {
 public:
  explicit Impl(int signal) {
    const sigset_t set = setOf(signal);
    signals_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    stateChanged_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() {
    if (!thread_.joinable()) return;
    changeState(State::ending);
    thread_.join();
  }

  bool start() {
    if (!signals_ || !stateChanged_) return false;
    try {
      thread_ = std::thread([this] { work(); });
    } catch (const std::system_error&) {
      return false;
    }
    return true;
  }

  void setEventHandler(Block handler) {
    KEEL_CHECK(state_.load() == State::suspended);
    handler_ = std::move(handler);
  }

  void resume() {
    KEEL_CHECK(state_.load() == State::suspended);
    changeState(State::active);
  }

 private:
  enum class State : std::uint8_t { suspended, active, ending };

  void changeState(State state) {
    state_.store(state);
    const std::uint64_t one = 1;
    KEEL_CHECK(write(stateChanged_.get(), &one, sizeof one) == sizeof one);
  }

  void work() {
    pthread_setname_np(pthread_self(), "keel-signal");
    const CrashStack crashStack;
    for (;;) {
      const State state = state_.load();
      if (state == State::ending) return;
      // poll(2) ignores a negative descriptor.
      pollfd polled[] = {
          {.fd = stateChanged_.get(), .events = POLLIN, .revents = 0},
          {.fd = state == State::active ? signals_.get() : -1, .events = POLLIN, .revents = 0}};
      KEEL_CHECK(poll(polled, std::size(polled), -1) >= 0 || errno == EINTR);
      std::uint64_t count = 0;
      while (read(stateChanged_.get(), &count, sizeof count) > 0) {
      }
      if (polled[1].revents != 0 && takeSignals() && handler_) handler_();
    }
  }

  // Returns true if any signal was pending.
  bool takeSignals() {
    bool taken = false;
    signalfd_siginfo record;
    while (read(signals_.get(), &record, sizeof record) > 0) taken = true;
    return taken;
  }

  FileDescriptor signals_;
  FileDescriptor stateChanged_;  // written on each change of state_
  std::atomic<State> state_{State::suspended};
  Block handler_;  // set while suspended, then used by the thread alone
  std::thread thread_;
};

std::unique_ptr<SignalSource> SignalSource::create(int signal) {
  auto impl = std::make_unique<Impl>(signal);
  if (!impl->start()) return nullptr;
  return std::unique_ptr<SignalSource>(new SignalSource(std::move(impl)));
}

SignalSource::SignalSource(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

SignalSource::~SignalSource() = default;

void SignalSource::setEventHandler(Block handler) {
  impl_->setEventHandler(std::move(handler));
}

void SignalSource::resume() {
  impl_->resume();
}

}  // namespace keel
