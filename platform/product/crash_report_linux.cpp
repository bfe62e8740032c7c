// SPDX-License-Identifier: Apache-2.0
// The handler runs in a process whose memory may be corrupt, interrupting code that may hold any
// lock. So it only makes system calls and reads prepared data (Setup), and formats all text in a
// buffer on its stack. Two library functions are safe there: the unwinder, once loaded, and
// _dl_find_object(3), which takes no lock. The unwinder reads a possibly corrupt stack and
// therefore comes last. A fault within the handler kills the process immediately, since the signal
// is blocked.
//
// An address is printed only as an offset into the file mapped there: a value from a corrupt stack
// may be part of a secret.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/product/build_id.h"
#include "platform/product/crash_annotation.h"
#include "platform/product/crash_report.h"

namespace keel {

namespace {

constexpr std::array kFatalSignals = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS};
constexpr int kFrames = 64;
// A slow reader of the report must not delay the exit. The alarm covers an output that fills up
// again after poll(2) reported room.
constexpr int kPatienceMilliseconds = 500;
constexpr unsigned kAlarmSeconds = 5;
constexpr std::string_view kCriticalPriority = "<2>";

struct Setup {
  int output = -1;
  std::string_view lineBegin;
  std::array<char, 128> buildId{};
  std::array<char, 1024> program{};
};
constinit Setup setup;
// The reporting thread.
constinit std::atomic<pid_t> reporter{0};

class Line {
 public:
  Line() { add(setup.lineBegin); }

  Line& add(std::string_view text) {
    // Leaves room for the newline.
    const std::size_t taken = std::min(text.size(), text_.size() - 1 - size_);
    std::memcpy(text_.data() + size_, text.data(), taken);
    size_ += taken;
    return *this;
  }
  Line& addNumber(std::uintmax_t number, int base = 10) {
    std::array<char, 32> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
    return add({digits.data(), static_cast<std::size_t>(end - digits.data())});
  }
  void write() {
    text_[size_++] = '\n';
    std::string_view rest(text_.data(), size_);
    while (!rest.empty() && setup.output >= 0) {
      pollfd room{setup.output, POLLOUT, 0};
      const ssize_t count = ::poll(&room, 1, kPatienceMilliseconds) == 1
                                ? ::write(setup.output, rest.data(), rest.size())
                                : -1;
      // The output is stuck: do not wait for the rest of the report.
      if (count < 0) setup.output = -1;
      if (count > 0) rest.remove_prefix(static_cast<std::size_t>(count));
    }
  }

 private:
  std::array<char, 1536> text_;
  std::size_t size_ = 0;
};

void writeSignal(int signal, const siginfo_t& info) {
  std::array<char, 16> thread{};
  ::prctl(PR_GET_NAME, thread.data());
  const char* const description = ::sigdescr_np(signal);
  Line line;
  line.add("keeld crashed: signal ").addNumber(static_cast<std::uintmax_t>(signal));
  line.add(" (")
      .add(description != nullptr ? description : "unknown")
      .add(") in thread ")
      .add(thread.data());
  if (info.si_code == SI_USER)
    line.add(", sent by process ").addNumber(static_cast<std::uintmax_t>(info.si_pid));
  line.write();
}

void writeFrame(void* address) {
  dl_find_object object{};
  if (::_dl_find_object(address, &object) != 0) return Line().add("  ?").write();
  const char* const name = object.dlfo_link_map->l_name;
  const auto offset = reinterpret_cast<std::uintptr_t>(address) - object.dlfo_link_map->l_addr;
  Line()
      .add("  ")
      .add(*name != '\0' ? name : setup.program.data())
      .add("+0x")
      .addNumber(offset, 16)
      .write();
}

void writeReport(int signal, const siginfo_t& info) {
  writeSignal(signal, info);
  const char* const banner = crashAnnotation().message;
  if (banner != nullptr) Line().add(banner).write();
  Line().add("build id ").add(setup.buildId.data()).write();
  Line().add("backtrace:").write();
  std::array<void*, kFrames> frames{};
  const int count = ::backtrace(frames.data(), kFrames);
  for (int i = 0; i < count; ++i) writeFrame(frames[static_cast<std::size_t>(i)]);
}

[[noreturn]] void endOf(int number) {
  ::signal(number, SIG_DFL);
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, number);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  ::raise(number);
  // Process 1 of a container cannot kill itself by a signal.
  ::_exit(128 + number);
}

void onFatalSignal(int signal, siginfo_t* info, void*) {
  pid_t before = 0;
  if (reporter.compare_exchange_strong(before, ::gettid())) {
    ::signal(SIGALRM, SIG_DFL);
    ::alarm(kAlarmSeconds);
    writeReport(signal, *info);
  } else if (before != ::gettid()) {
    // The reporting thread ends this one.
    for (;;) ::pause();
  }
  endOf(signal);
}

template <std::size_t size>
void keep(std::string_view text, std::array<char, size>& place) {
  std::memcpy(place.data(), text.data(), std::min(text.size(), size - 1));
}

}  // namespace

void installCrashReport(CrashOutput output) {
  // A duplicate: if standard error were closed, its number could be reused for a client's socket.
  setup.output = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  setup.lineBegin = output == CrashOutput::journal ? kCriticalPriority : "";
  keep(buildId(), setup.buildId);
  if (::readlink("/proc/self/exe", setup.program.data(), setup.program.size() - 1) < 0)
    keep("keeld", setup.program);
  // Loads the unwinder.
  std::array<void*, 1> frame{};
  ::backtrace(frame.data(), 1);

  struct sigaction action{};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  ::sigfillset(&action.sa_mask);
  ::sigdelset(&action.sa_mask, SIGALRM);
  for (const int signal : kFatalSignals) {
    struct sigaction before{};
    ::sigaction(signal, nullptr, &before);
    const bool isFree = (before.sa_flags & SA_SIGINFO) == 0 &&
                        (before.sa_handler == SIG_DFL || before.sa_handler == SIG_IGN);
    if (isFree) ::sigaction(signal, &action, nullptr);
  }
}

}  // namespace keel
