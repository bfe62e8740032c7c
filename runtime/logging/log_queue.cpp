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

// Neither root's lines nor the daemon's own are limited: root may do anything anyway.
bool isLimited(std::optional<uid_t> user) {
  return user && *user != 0;
}

}  // namespace

LogQueue::LogQueue(std::unique_ptr<LogOutput> output, std::function<Clock::time_point()> now)
    : output_(std::move(output)), now_(std::move(now)) {
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

bool LogQueue::admits(std::optional<uid_t> user, LogLevel level,
                      std::string_view category) noexcept {
  if (!isLimited(user)) return true;
  try {
    const std::lock_guard lock(mutex_);
    if (limits_.admits(*user, level, category, now_())) return true;
    if (leftOutReportAt_) return false;
    leftOutReportAt_ = Clock::now() + kLeftOutReportInterval;
  } catch (...) {  // Out of memory: no line either.
    return false;
  }
  pushed_.notify_one();
  return false;
}

void LogQueue::push(LogLevel level, std::string_view category, std::string text,
                    std::size_t fullBytes, std::optional<uid_t> user) noexcept {
  const auto now = std::chrono::system_clock::now();
  {
    const std::lock_guard lock(mutex_);
    add({level, category, std::move(text), now, fullBytes, user});
  }
  pushed_.notify_one();
}

bool LogQueue::hasRoomFor(const Entry& entry) const {
  const std::size_t freeMessages = kLogQueueMessages - pending_.size();
  const std::size_t freeBytes = kLogQueueBytes - pendingBytes_;
  if (freeMessages == 0 || entry.text.size() > freeBytes) return false;
  if (!isLimited(entry.user)) return true;
  const auto found = usageByUser_.find(*entry.user);
  const Usage usage = found != usageByUser_.end() ? found->second : Usage();
  return usage.messages < freeMessages / kLogQueueUserPart &&
         usage.bytes + entry.text.size() <= freeBytes / kLogQueueUserPart;
}

void LogQueue::add(Entry entry) noexcept {
  const std::size_t textBytes = entry.text.size();
  if (!hasRoomFor(entry)) {
    ++lostCount_;
    return;
  }
  try {
    Usage* const usage = isLimited(entry.user) ? &usageByUser_[*entry.user] : nullptr;
    pending_.push_back(std::move(entry));
    if (usage != nullptr) {
      ++usage->messages;
      usage->bytes += textBytes;
    }
  } catch (...) {  // Out of memory.
    ++lostCount_;
    return;
  }
  pendingBytes_ += textBytes;
  ++pushedCount_;
}

void LogQueue::reportLeftOut() noexcept try {
  leftOutReportAt_.reset();
  for (const LineLimits::LeftOut& leftOut : limits_.takeLeftOut()) {
    const std::string who =
        leftOut.user
            ? fmt::format("uid {}", *leftOut.user)
            : fmt::format("users beyond the {} whose lines are counted one by one", kCountedUsers);
    add({leftOut.level, leftOut.category,
         fmt::format("{} {} caused by {} {} left out", leftOut.count,
                     leftOut.count == 1 ? "line" : "lines", who,
                     leftOut.count == 1 ? "was" : "were"),
         std::chrono::system_clock::now(), 0, leftOut.user});
  }
} catch (...) {  // Out of memory.
}

bool LogQueue::flush(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  reportLeftOut();
  pushed_.notify_one();
  const std::uint64_t target = pushedCount_;
  return written_.wait_for(lock, timeout, [&] { return writtenCount_ >= target; });
}

// Returns once there is something to write, or the queue ends.
void LogQueue::awaitWork(std::unique_lock<std::mutex>& lock) {
  while (true) {
    if (ending_ || (leftOutReportAt_ && Clock::now() >= *leftOutReportAt_)) reportLeftOut();
    if (!pending_.empty() || ending_) return;
    if (leftOutReportAt_) {
      pushed_.wait_until(lock, *leftOutReportAt_);
    } else {
      pushed_.wait(lock);
    }
  }
}

void LogQueue::run() noexcept {
  const CrashStack crashStack;
  std::vector<Entry> batch;
  std::unique_lock lock(mutex_);
  while (true) {
    awaitWork(lock);
    if (pending_.empty()) return;
    std::swap(batch, pending_);
    pendingBytes_ = 0;
    usageByUser_.clear();
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
      if (output_->write(
              {entry.level, entry.category, entry.text, entry.time, entry.fullBytes, entry.user}))
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
