// SPDX-License-Identifier: Apache-2.0
// Between fork and exec the child is a copy of a multi-threaded process with only the forking
// thread: locks held by others stay locked. So everything that allocates or looks something up
// happens before (Preparation); the child only makes system calls, and reports through a pipe which
// one failed. The exec closes the pipe.
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/close_range.h>
#include <linux/ioprio.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/supervisor/process_launcher.h"
#include "platform/supervisor/supervisor_error.h"

namespace keel {

namespace {

constexpr int kFirstPassed = 3;
constexpr const char* kSearchPath =
    "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr std::size_t kAccountBytesLimit = 1u << 20;
constexpr std::string_view kListenPid = "LISTEN_PID=";

// The child's steps, in order.
enum class Step : int {
  session,
  signals,
  rights,
  input,
  output,
  errorOutput,
  descriptors,
  scheduling,
  limits,
  rootDirectory,
  workingDirectory,
  account,
  death,
  exec
};
struct Report {
  Step step;
  int problem;
};

struct Account {
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups = {0};
  bool changes = false;
};

// Everything the child needs.
struct Preparation {
  const Job* job = nullptr;
  Account account;
  std::array<std::string, 3> paths;        // of its standard files; empty: keeld's standard error
  std::array<FileDescriptor, 3> standard;  // the child opens those with a path
  std::vector<int> sockets;
  std::vector<std::string> variables;  // the last is LISTEN_PID, with room for the pid
  std::vector<char*> environment;
  std::vector<char*> arguments;
  std::vector<int> moved;  // one element per socket
  pid_t parent = -1;
  int report = -1;
};

template <class Entry, class Find>
std::expected<bool, int> lookUp(Entry& entry, std::vector<char>& buffer, Find find) {
  for (buffer.resize(4096);; buffer.resize(buffer.size() * 2)) {
    Entry* found = nullptr;
    const int problem = find(&entry, buffer.data(), buffer.size(), &found);
    if (problem == EINTR) continue;
    if (problem == ERANGE && buffer.size() < kAccountBytesLimit) continue;
    if (problem != 0 && problem != ENOENT && problem != ESRCH) return std::unexpected(problem);
    return found != nullptr;
  }
}

std::unexpected<Error> failure(const Job& job, int problem, const std::string& what) {
  return std::unexpected(
      supervisorError(problem, fmt::format("the job {} cannot be started: {}: {}", job.label, what,
                                           std::strerror(problem))));
}

std::expected<void, Error> findUser(const Job& job, Preparation& made) {
  if (job.userName.empty()) return {};
  passwd user{};
  std::vector<char> buffer;
  const auto found =
      lookUp(user, buffer, [&](passwd* entry, char* texts, std::size_t size, passwd** result) {
        return ::getpwnam_r(job.userName.c_str(), entry, texts, size, result);
      });
  if (!found || !*found)
    return failure(job, found ? ESRCH : found.error(), "the user " + job.userName);
  made.account.uid = user.pw_uid;
  made.account.gid = user.pw_gid;
  made.account.changes = true;
  int count = 64;
  do {
    made.account.groups.resize(static_cast<std::size_t>(count));
  } while (::getgrouplist(job.userName.c_str(), user.pw_gid, made.account.groups.data(), &count) <
           0);
  made.account.groups.resize(static_cast<std::size_t>(count));
  for (const auto& [name, value] : {std::pair<const char*, const char*>{"USER", user.pw_name},
                                    {"LOGNAME", user.pw_name},
                                    {"HOME", user.pw_dir},
                                    {"SHELL", user.pw_shell}}) {
    made.variables.push_back(fmt::format("{}={}", name, value));
  }
  return {};
}

std::expected<void, Error> findGroup(const Job& job, Preparation& made) {
  if (job.groupName.empty()) return {};
  group found{};
  std::vector<char> buffer;
  const auto exists =
      lookUp(found, buffer, [&](group* entry, char* texts, std::size_t size, group** result) {
        return ::getgrnam_r(job.groupName.c_str(), entry, texts, size, result);
      });
  if (!exists || !*exists)
    return failure(job, exists ? ESRCH : exists.error(), "the group " + job.groupName);
  made.account.gid = found.gr_gid;
  made.account.changes = true;
  return {};
}

std::expected<void, Error> prepareStandard(const Job& job, Preparation& made) {
  made.paths = {job.standardInPath.empty() ? "/dev/null" : job.standardInPath, job.standardOutPath,
                job.standardErrorPath};
  for (std::size_t number = 0; number < made.paths.size(); ++number) {
    if (!made.paths[number].empty()) continue;
    made.standard[number].reset(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, kFirstPassed));
    if (!made.standard[number]) return failure(job, errno, "keeld's standard error");
  }
  return {};
}

void fillEnvironment(const Job& job, const std::vector<NamedSocket>& sockets, Preparation& made) {
  made.variables.emplace_back(kSearchPath);
  for (const auto& [name, value] : job.environment) {
    // The job's own value overrides ours.
    const std::string beginning = name + "=";
    std::erase_if(made.variables,
                  [&](const std::string& variable) { return variable.starts_with(beginning); });
    made.variables.push_back(beginning + value);
  }
  if (!sockets.empty()) {
    std::string names;
    for (const NamedSocket& socket : sockets) names += (names.empty() ? "" : ":") + socket.name;
    made.variables.push_back(fmt::format("LISTEN_FDS={}", sockets.size()));
    made.variables.push_back("LISTEN_FDNAMES=" + names);
    // Room for any process id and the NUL.
    made.variables.push_back(std::string(kListenPid) + std::string(16, '\0'));
  }
  for (std::string& variable : made.variables) made.environment.push_back(variable.data());
  made.environment.push_back(nullptr);
}

std::expected<void, Error> prepare(const Job& job, const std::vector<NamedSocket>& sockets,
                                   Preparation& made) {
  made.job = &job;
  made.parent = ::getpid();
  if (auto found = findUser(job, made); !found) return found;
  if (auto found = findGroup(job, made); !found) return found;
  if (auto prepared = prepareStandard(job, made); !prepared) return prepared;
  for (const NamedSocket& socket : sockets) {
    made.sockets.push_back(socket.descriptor);
    // The program may use blocking accepts; keeld never accepts on it.
    ::fcntl(socket.descriptor, F_SETFL, ::fcntl(socket.descriptor, F_GETFL) & ~O_NONBLOCK);
  }
  made.moved.resize(sockets.size());
  fillEnvironment(job, sockets, made);
  for (const std::string& argument : job.arguments)
    made.arguments.push_back(const_cast<char*>(argument.c_str()));
  made.arguments.push_back(nullptr);
  return {};
}

// ---- in the child: system calls alone
// -------------------------------------------------------------------------------------

bool resetSignals() {
  struct sigaction standard{};
  standard.sa_handler = SIG_DFL;
  // Signals that cannot be set already have the right disposition.
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &standard, nullptr);
  sigset_t none;
  return ::sigemptyset(&none) == 0 && ::sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

// These calls report no failure.
bool openFilesAs(uid_t user, gid_t group) {
  ::setfsgid(group);
  ::setfsuid(user);
  if (::setfsgid(static_cast<gid_t>(-1)) == static_cast<int>(group) &&
      ::setfsuid(static_cast<uid_t>(-1)) == static_cast<int>(user)) {
    return true;
  }
  errno = EPERM;
  return false;
}

// Never blocks on a FIFO, and never follows a link out of a directory of the job's user.
bool openStandardFile(Preparation& made, std::size_t number) {
  const std::string& path = made.paths[number];
  if (path.empty()) return true;
  const int flags = number == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_APPEND;
  made.standard[number].reset(
      ::open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0640));
  return made.standard[number] &&
         ::fcntl(made.standard[number].get(), F_SETFL, flags & O_APPEND) == 0;
}

// Opens with the job's user's rights. The groups stay; the child is about to become that user.
bool openStandard(Preparation& made, Step& step) {
  step = Step::rights;
  const Account& account = made.account;
  if (account.changes && (::setgroups(account.groups.size(), account.groups.data()) != 0 ||
                          !openFilesAs(account.uid, account.gid))) {
    return false;
  }
  step = Step::input;
  if (!openStandardFile(made, 0)) return false;
  step = Step::output;
  if (!openStandardFile(made, 1)) return false;
  step = Step::errorOutput;
  if (!openStandardFile(made, 2)) return false;
  step = Step::rights;
  return openFilesAs(::geteuid(), ::getegid());
}

// Moves them out of the way first: one's target number may be in use by another.
bool arrangeDescriptors(Preparation& made) {
  const int count = static_cast<int>(made.sockets.size());
  const int free = kFirstPassed + count;
  made.report = ::fcntl(made.report, F_DUPFD_CLOEXEC, free);
  if (made.report < 0) return false;
  std::array<int, 3> standard{};
  for (std::size_t place = 0; place < standard.size(); ++place) {
    standard[place] = ::fcntl(made.standard[place].get(), F_DUPFD_CLOEXEC, free);
    if (standard[place] < 0) return false;
  }
  for (std::size_t place = 0; place < made.sockets.size(); ++place) {
    made.moved[place] = ::fcntl(made.sockets[place], F_DUPFD_CLOEXEC, free);
    if (made.moved[place] < 0) return false;
  }
  for (int number = 0; number < 3; ++number) {
    if (::dup2(standard[static_cast<std::size_t>(number)], number) < 0) return false;
  }
  for (int place = 0; place < count; ++place) {
    if (::dup2(made.moved[static_cast<std::size_t>(place)], kFirstPassed + place) < 0) return false;
  }
  return ::syscall(SYS_close_range, static_cast<unsigned>(free), ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

bool schedule(const Job& job) {
  if (job.nice && ::setpriority(PRIO_PROCESS, 0, *job.nice) != 0) return false;
  const sched_param parameters{};
  if (job.background && ::sched_setscheduler(0, SCHED_BATCH, &parameters) != 0) return false;
  if (!job.background && !job.lowPriorityIO) return true;
  return ::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0,
                   IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 7)) == 0;
}

bool limit(const Job& job) {
  if (job.umask) ::umask(*job.umask);
  for (const Job::Limit& each : job.limits) {
    const rlimit bounds{each.soft, each.hard};
    if (::setrlimit(static_cast<__rlimit_resource_t>(each.resource), &bounds) != 0) return false;
  }
  return true;
}

bool become(const Account& account) {
  if (!account.changes) return true;
  return ::setgroups(account.groups.size(), account.groups.data()) == 0 &&
         ::setresgid(account.gid, account.gid, account.gid) == 0 &&
         ::setresuid(account.uid, account.uid, account.uid) == 0;
}

// Last, because changing the user would undo it.
bool endWithParent(pid_t parent) {
  return ::prctl(PR_SET_PDEATHSIG, SIGTERM) == 0 && ::getppid() == parent;
}

void writeOwnProcessId(Preparation& made) {
  if (made.sockets.empty()) return;
  std::array<char, 16> digits{};
  std::size_t count = 0;
  for (auto number = static_cast<unsigned>(::getpid()); number != 0; number /= 10) {
    digits[count++] = static_cast<char>('0' + number % 10);
  }
  char* place = made.variables.back().data() + kListenPid.size();
  while (count > 0) *place++ = digits[--count];
}

[[noreturn]] void runChild(Preparation& made) {
  const Job& job = *made.job;
  Step step = Step::session;
  const auto taken = [&step](Step next, bool worked) {
    if (worked) step = next;
    return worked;
  };
  const auto enter = [](const std::string& directory, int (*change)(const char*)) {
    return directory.empty() || change(directory.c_str()) == 0;
  };
  if (taken(Step::signals, ::setsid() >= 0) && taken(Step::rights, resetSignals()) &&
      taken(Step::descriptors, openStandard(made, step)) &&
      taken(Step::scheduling, arrangeDescriptors(made)) && taken(Step::limits, schedule(job)) &&
      taken(Step::rootDirectory, limit(job)) &&
      taken(Step::workingDirectory, enter(job.rootDirectory, &::chroot)) &&
      taken(Step::account,
            ::chdir(job.workingDirectory.empty() ? "/" : job.workingDirectory.c_str()) == 0) &&
      taken(Step::death, become(made.account)) && taken(Step::exec, endWithParent(made.parent))) {
    writeOwnProcessId(made);
    ::execve(job.program.c_str(), made.arguments.data(), made.environment.data());
  }
  const Report report{step, errno};
  // If this fails too, there is nowhere to report it.
  [[maybe_unused]] const ssize_t written = ::write(made.report, &report, sizeof(report));
  ::_exit(127);
}

// ---- in the parent
// --------------------------------------------------------------------------------------------------------

std::string describe(Step step, const Preparation& made) {
  switch (step) {
    case Step::session:
      return "begin a session";
    case Step::signals:
      return "reset its signals";
    case Step::rights:
      return "open files with the rights of its user";
    case Step::input:
      return "open " + made.paths[0];
    case Step::output:
      return "open " + made.paths[1];
    case Step::errorOutput:
      return "open " + made.paths[2];
    case Step::descriptors:
      return "arrange its descriptors";
    case Step::scheduling:
      return "set its priority";
    case Step::limits:
      return "set its resource limits";
    case Step::rootDirectory:
      return "change to its root directory";
    case Step::workingDirectory:
      return "change to its working directory";
    case Step::account:
      return "become its user";
    case Step::death:
      return "end with keeld";
    case Step::exec:
      return "run its program " + made.job->program;
  }
  return "start";
}

std::optional<Report> reportOf(int pipe) {
  Report report{};
  ssize_t count = 0;
  do {
    count = ::read(pipe, &report, sizeof(report));
  } while (count < 0 && errno == EINTR);
  if (count != sizeof(report)) return std::nullopt;
  return report;
}

}  // namespace

std::expected<LaunchedProcess, Error> launch(const Job& job,
                                             const std::vector<NamedSocket>& sockets) {
  Preparation made;
  if (auto prepared = prepare(job, sockets, made); !prepared)
    return std::unexpected(prepared.error());
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return failure(job, errno, "a pipe");
  const FileDescriptor reading(ends[0]);
  FileDescriptor writing(ends[1]);
  made.report = writing.get();

  const pid_t pid = ::fork();
  if (pid == 0) runChild(made);
  if (pid < 0) return failure(job, errno, "fork");
  writing.reset();
  if (const auto report = reportOf(reading.get())) {
    ::waitpid(pid, nullptr, 0);
    return failure(job, report->problem, describe(report->step, made));
  }
  // Nothing else reaps our children, so the pid is still this child's.
  FileDescriptor pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!pidfd) {
    const int problem = errno;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    return failure(job, problem, "watch its process");
  }
  return LaunchedProcess{pid, std::move(pidfd)};
}

}  // namespace keel
