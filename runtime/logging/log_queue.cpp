// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/log_queue.h"

#include <fmt/format.h>
#include <pthread.h>

#include <csignal>
#include <utility>

#include "runtime/foundation/crash_stack.h"

namespace keel {
namespace {

// Blocks all signals in the calling thread and those it starts, except those that report a fault of
// the thread itself. An output whose reader is gone thus gets EPIPE instead of a fatal SIGPIPE, and
// no signal for another thread is delivered here.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
      sigdelset(&all, fault);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

LogQueue::LogQueue(std::unique_ptr<LogOutput> output) : output_(std::move(output)) {
  const SignalsBlocked blocked;
  thread_ = std::thread([this] { run(); });
  pthread_setname_np(thread_.native_handle(), "keel-log");
}

LogQueue::~LogQueue() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  pushed_.notify_one();
  thread_.join();
}

void LogQueue::push(LogLevel level, std::string_view category, std::string text,
                    std::size_t fullBytes) noexcept {
  const auto now = std::chrono::system_clock::now();
  {
    const std::lock_guard lock(mutex_);
    if (pending_.size() >= kLogQueueMessages || text.size() > kLogQueueBytes - pendingBytes_) {
      ++lostCount_;
      return;
    }
    const std::size_t textBytes = text.size();
    try {
      pending_.push_back({level, category, std::move(text), now, fullBytes});
    } catch (...) {  // Out of memory.
      ++lostCount_;
      return;
    }
    pendingBytes_ += textBytes;
    ++pushedCount_;
  }
  pushed_.notify_one();
}

bool LogQueue::flush(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  const std::uint64_t target = pushedCount_;
  return written_.wait_for(lock, timeout, [&] { return writtenCount_ >= target; });
}

void LogQueue::run() noexcept {
  const CrashStack crashStack;
  std::vector<Entry> batch;
  std::unique_lock lock(mutex_);
  while (true) {
    pushed_.wait(lock, [this] { return !pending_.empty() || ending_; });
    if (pending_.empty()) return;
    std::swap(batch, pending_);
    pendingBytes_ = 0;
    std::uint64_t lostCount = std::exchange(lostCount_, 0);
    lock.unlock();

    // Messages are lost while earlier ones fill the queue, so the report follows the batch. While
    // the output accepts nothing, the losses are carried over to a later batch.
    lostCount += writeBatch(batch);
    if (lostCount > 0) lostCount = reportLost(lostCount);
    const std::uint64_t batchCount = batch.size();
    batch.clear();

    lock.lock();
    lostCount_ += lostCount;
    writtenCount_ += batchCount;
    written_.notify_all();
  }
}

std::uint64_t LogQueue::writeBatch(const std::vector<Entry>& batch) noexcept {
  std::uint64_t lostCount = 0;
  for (const Entry& entry : batch) {
    try {
      if (output_->write({entry.level, entry.category, entry.text, entry.time, entry.fullBytes}))
        continue;
    } catch (...) {  // Out of memory.
    }
    ++lostCount;
  }
  return lostCount;
}

std::uint64_t LogQueue::reportLost(std::uint64_t lostCount) noexcept {
  try {
    const std::string text =
        fmt::format("{} log {} lost because the output did not keep up", lostCount,
                    lostCount == 1 ? "message was" : "messages were");
    if (output_->write({LogLevel::error, "runtime", text, std::chrono::system_clock::now()}))
      return 0;
  } catch (...) {  // Out of memory.
  }
  return lostCount;
}

}  // namespace keel
