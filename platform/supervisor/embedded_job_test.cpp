// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/embedded_job.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

#include "platform/supervisor/embedded_supervisor.h"
#include "runtime/dispatch/worker_pool.h"
#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

// Real programs, a manually stepped reactor and a manual clock.
class EmbeddedJobTest : public testing::Test {
 protected:
  EmbeddedJobTest() { records_ = std::make_shared<JobRecords>(root_); }
  ~EmbeddedJobTest() override {
    if (job_) end();
    // Its remaining output comes first.
    pool_.reset();
  }

  EmbeddedJob::World world() {
    return {.serviceDirectory = root_,
            .reactor = reactor_,
            .workers = *pool_,
            .records = records_,
            .now = [this] { return now_; }};
  }

  // Returns a job whose shell runs `script`.
  static Job shell(std::string script) {
    Job job;
    job.label = "com.example.job";
    job.program = "/bin/sh";
    job.arguments = {"sh", "-c", std::move(script)};
    job.machServices = {"service"};
    return job;
  }
  void begin(Job job) {
    auto made = EmbeddedJob::create(std::move(job), world());
    ASSERT_TRUE(made) << made.error().description();
    job_ = *made;
    job_->begin();
    turn();
  }
  void end() {
    const std::weak_ptr<EmbeddedJob> ended = job_;
    std::exchange(job_, nullptr)->end();
    until([&] { return ended.expired(); });
  }

  void turn() {
    while (reactor_.turn(/*wait=*/false)) {
    }
  }
  // Runs turns until the condition holds. Output of programs and workers does not wake the reactor.
  template <class Condition>
  void until(Condition condition) {
    for (; !condition(); std::this_thread::yield()) turn();
  }
  FileDescriptor atService(int (*use)(int, const sockaddr*, socklen_t)) {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, (root_ + "/service").c_str());
    EXPECT_EQ(use(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return socket;
  }
  FileDescriptor connect() { return atService(&::connect); }
  std::string path(const char* name) const { return folder_.path(name); }
  static std::string content(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  // Returns how often the program was started: each start appends a line to that file.
  std::size_t startCount() const {
    const std::string starts = content(path("starts"));
    return static_cast<std::size_t>(std::ranges::count(starts, '\n'));
  }
  JobState recorded() const { return records_->read("service"); }

  const TemporaryFolder folder_;
  const std::string root_ = folder_.path();
  Reactor::Clock::time_point now_ = Reactor::Clock::now();
  Reactor reactor_{[this] { return now_; }};
  std::unique_ptr<WorkerPool> pool_ = std::make_unique<WorkerPool>(1);
  std::shared_ptr<JobRecords> records_;
  std::shared_ptr<EmbeddedJob> job_;
};

// A command that serves one client until it disconnects.
constexpr const char* kServeOne =
    "/usr/bin/python3 -c 'import socket; c, a = socket.socket(fileno=3).accept(); "
    "c.sendall(b\"x\"); c.recv(1)'";

TEST_F(EmbeddedJobTest, StartsOnTheFirstConnection) {
  begin(shell("echo start >>" + path("starts")));
  EXPECT_EQ(startCount(), 0u);
  const auto client = connect();
  until([&] { return startCount() == 1; });
}

TEST_F(EmbeddedJobTest, PassesTheSocketsToTheProgram) {
  Job job = shell("echo \"$LISTEN_FDS $LISTEN_FDNAMES $((LISTEN_PID - $$)) $HOME$KEELD_LOG\" >" +
                  path("told") + "; mv " + path("told") + " " + path("done") + "; exec sleep 1000");
  job.machServices = {"service", "other.service"};
  begin(job);
  const auto client = connect();
  until([&] {
    return std::filesystem::exists(path("done")) || recorded().program == JobState::Program::failed;
  });
  EXPECT_EQ(content(path("done")), "2 service:other.service 0 \n");
}

TEST_F(EmbeddedJobTest, RestartsACleanlyExitedProgramOnDemand) {
  begin(shell("echo start >>" + path("starts") + "; " + kServeOne));
  for (std::size_t round = 1; round <= 2; ++round) {
    FileDescriptor client = connect();
    char answer = 0;
    until([&] { return ::recv(client.get(), &answer, 1, MSG_DONTWAIT) == 1; });
    until([&] { return recorded().program == JobState::Program::running; });
    EXPECT_GT(recorded().processId, 0);
    client.reset();
    until([&] { return recorded().program == JobState::Program::none; });
    EXPECT_EQ(startCount(), round);
  }
  EXPECT_TRUE(recorded().problem.empty());
}

TEST_F(EmbeddedJobTest, ThrottlesAFailingProgram) {
  Job job = shell("echo start >>" + path("starts") + "; exit 3");
  job.throttleInterval = 5s;
  begin(job);
  const auto client = connect();
  until([&] { return recorded().program == JobState::Program::starting; });
  EXPECT_EQ(recorded().problem, "it exited with status 3");
  now_ += 5s - 1ms;
  turn();
  EXPECT_EQ(startCount(), 1u);
  now_ += 1ms;
  until([&] { return startCount() == 2; });
}

TEST_F(EmbeddedJobTest, ThrottlesForAtLeastTheMinimum) {
  Job job = shell("echo start >>" + path("starts") + "; kill -SEGV $$");
  job.throttleInterval = 0s;
  begin(job);
  const auto client = connect();
  until([&] { return recorded().program == JobState::Program::starting; });
  EXPECT_THAT(recorded().problem, HasSubstr("it was killed by signal 11"));
  now_ += EmbeddedJob::kMinPause - 1ms;
  turn();
  EXPECT_EQ(startCount(), 1u);
  now_ += 1ms;
  until([&] { return startCount() == 2; });
}

TEST_F(EmbeddedJobTest, ThrottlesAProgramThatNeverAccepts) {
  begin(shell("echo start >>" + path("starts")));
  const auto client = connect();
  until([&] { return recorded().program == JobState::Program::starting; });
  turn();
  EXPECT_EQ(startCount(), static_cast<std::size_t>(EmbeddedJob::kFreeStarts));
  now_ += 10s;
  until([&] { return startCount() > static_cast<std::size_t>(EmbeddedJob::kFreeStarts); });
}

TEST_F(EmbeddedJobTest, TreatsALostExitStatusAsFailure) {
  const auto before = ::signal(SIGCHLD, SIG_IGN);
  begin(shell("echo start >>" + path("starts") + "; " + kServeOne));
  FileDescriptor client = connect();
  until([&] { return recorded().program == JobState::Program::running; });
  char answer = 0;
  until([&] { return ::recv(client.get(), &answer, 1, MSG_DONTWAIT) == 1; });
  client.reset();
  until([&] { return recorded().program == JobState::Program::starting; });
  ::signal(SIGCHLD, before);
  EXPECT_EQ(recorded().problem, "it exited, and its status was lost");
  client = connect();
  now_ += 10s;
  until([&] { return startCount() == 2; });
}

TEST_F(EmbeddedJobTest, StartsAKeepAliveJobWithoutDemand) {
  Job job = shell("echo start >>" + path("starts"));
  job.runAtLoad = true;
  job.restart = Job::Restart::always;
  begin(job);
  until([&] { return recorded().program == JobState::Program::starting; });
  EXPECT_EQ(startCount(), 1u);
  now_ += 10s;
  until([&] { return startCount() == 2; });
}

TEST_F(EmbeddedJobTest, ReportsAProgramThatCannotBeRun) {
  Job job = shell("");
  job.program = path("missing");
  begin(job);
  const auto client = connect();
  until([&] { return !recorded().problem.empty(); });
  EXPECT_THAT(recorded().problem,
              HasSubstr("run its program " + path("missing") + ": No such file"));
}

TEST_F(EmbeddedJobTest, NamesTheFailedStep) {
  const auto problemOf = [&](auto change) {
    Job job = shell("");
    change(job);
    const auto launched = launch(job, {});
    return launched ? std::string("(started)") : launched.error().description();
  };
  EXPECT_THAT(problemOf([](Job& job) { job.userName = "nobody-of-that-name"; }),
              HasSubstr("the user nobody-of-that-name"));
  EXPECT_THAT(problemOf([](Job& job) { job.groupName = "nobody-of-that-name"; }),
              HasSubstr("the group nobody-of-that-name"));
  EXPECT_THAT(problemOf([](Job& job) { job.workingDirectory = "/missing"; }),
              HasSubstr("change to its working directory: No such file"));
  EXPECT_THAT(problemOf([](Job& job) { job.standardOutPath = "/missing/file"; }),
              HasSubstr("open /missing/file"));
}

TEST_F(EmbeddedJobTest, OpensFilesWithTheUsersRights) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root runs programs as somebody else";
  Job job = shell("echo said");
  job.userName = "nobody";
  const std::string folder = path("folder");
  std::filesystem::permissions(root_, std::filesystem::perms(0755));
  std::filesystem::create_directory(folder);
  std::ofstream(path("ours")) << "secret\n";
  const auto problemWith = [&](const std::string& file) {
    job.standardOutPath = file;
    const auto launched = launch(job, {});
    if (!launched) return launched.error().description();
    ::waitpid(launched->pid, nullptr, 0);
    return std::string();
  };
  EXPECT_THAT(problemWith(folder + "/out"), HasSubstr("Permission denied"));
  ASSERT_EQ(::chown(folder.c_str(), 65534, 65534), 0);
  EXPECT_EQ(problemWith(folder + "/out"), "");
  EXPECT_EQ(content(folder + "/out"), "said\n");
  struct stat status{};
  ASSERT_EQ(::stat((folder + "/out").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 65534u);
  EXPECT_EQ(status.st_mode & 07777u & ~0640u, 0u);
  std::filesystem::create_symlink(path("ours"), folder + "/link");
  EXPECT_THAT(problemWith(folder + "/link"), HasSubstr("open " + folder + "/link"));
  EXPECT_EQ(content(path("ours")), "secret\n");
  // The thread has its own rights back.
  std::ofstream(path("ours"), std::ios::app) << "more\n";
  EXPECT_EQ(content(path("ours")), "secret\nmore\n");
}

// As in a container without the capability to change users.
void dropCapability(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> data{};
  ASSERT_EQ(::syscall(SYS_capget, &header, data.data()), 0);
  data[0].effective &= ~(1u << capability);
  ASSERT_EQ(::syscall(SYS_capset, &header, data.data()), 0);
}

TEST_F(EmbeddedJobTest, AForbiddenUserChangeFailsOnlyTheJob) {
  const auto problemWithout = [&](int capability) {
    dropCapability(capability);
    Job job = shell("");
    job.userName = "nobody";
    job.standardOutPath = path("out");
    const auto launched = launch(job, {});
    std::fputs(launched ? "(started)" : launched.error().description().c_str(), stderr);
    ::_exit(7);
  };
  constexpr const char* kProblem =
      "^the job com.example.job cannot be started: open files with the rights of its user: "
      "Operation not permitted ";
  EXPECT_EXIT(problemWithout(CAP_SETGID), testing::ExitedWithCode(7), kProblem);
  EXPECT_EXIT(problemWithout(CAP_SETUID), testing::ExitedWithCode(7), kProblem);
  EXPECT_FALSE(std::filesystem::exists(path("out")));
}

TEST_F(EmbeddedJobTest, RunsTheProgramAsTheJobDescribes) {
  Job job = shell("umask; pwd; ulimit -Sn; ulimit -Hn; nice; echo \"$A\"; cat; trap; echo end");
  job.workingDirectory = "/usr";
  job.umask = 027;
  job.limits = {{RLIMIT_NOFILE, "NOFILE", 20, 30}};
  job.nice = 3;
  job.environment = {{"A", "a b\n%$"}};
  std::ofstream(path("in")) << "input\n";
  job.standardInPath = path("in");
  job.standardOutPath = path("out");
  job.runAtLoad = true;
  begin(job);
  until([&] { return content(path("out")).ends_with("end\n"); });
  EXPECT_EQ(content(path("out")), "0027\n/usr\n20\n30\n3\na b\n%$\ninput\nend\n");
}

TEST_F(EmbeddedJobTest, ProgramInheritsNothingFromTheDaemon) {
  // A descriptor of ours without close-on-exec.
  const FileDescriptor stray(::dup(STDERR_FILENO));
  ::setenv("KEELD_SECRET", "x", 1);
  Job job = shell("exec >" + path("out") +
                  " 2>&1; ls /proc/$$/fd; grep -E '^Sig(Blk|Ign):' /proc/self/status; env | "
                  "grep KEELD; echo end");
  job.runAtLoad = true;
  ::signal(SIGHUP, SIG_IGN);
  begin(job);
  ::signal(SIGHUP, SIG_DFL);
  until([&] { return content(path("out")).ends_with("end\n"); });
  EXPECT_EQ(content(path("out")),
            "0\n1\n2\n3\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nend\n");
  ::unsetenv("KEELD_SECRET");
}

TEST_F(EmbeddedJobTest, EndTerminatesTheProgramAndRemovesTheSockets) {
  begin(shell("trap 'exit 0' TERM; echo start >>" + path("starts") +
              "; while :; do sleep 1000 & wait; done"));
  const auto client = connect();
  until([&] { return startCount() == 1; });
  end();
  EXPECT_FALSE(std::filesystem::exists(root_ + "/service"));
}

TEST_F(EmbeddedJobTest, EndKillsAProgramThatIgnoresSigterm) {
  Job job =
      shell("trap '' TERM; echo start >>" + path("starts") + "; while :; do sleep 1000; done");
  job.exitTimeOut = 2s;
  begin(job);
  const auto client = connect();
  until([&] { return startCount() == 1; });
  until([&] { return recorded().program == JobState::Program::running; });
  const pid_t pid = recorded().processId;
  // Only the job itself keeps it alive now.
  std::exchange(job_, nullptr)->end();
  turn();
  EXPECT_FALSE(std::filesystem::exists(path("service")));
  EXPECT_EQ(::kill(pid, 0), 0);
  now_ += 2s;
  until([&] { return ::kill(pid, 0) != 0; });
}

TEST_F(EmbeddedJobTest, ReplacesASocketStillHeldByAnotherProcess) {
  const FileDescriptor former = atService(&::bind);
  ASSERT_EQ(::listen(former.get(), 1), 0);
  begin(shell("echo start >>" + path("starts")));
  EXPECT_EQ(startCount(), 0u);
  const auto client = connect();
  until([&] { return startCount() == 1; });
  // Nothing connected to the former socket, not even to probe it.
  pollfd waiting{former.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&waiting, 1, 0), 0);
}

class EmbeddedSupervisorTest : public EmbeddedJobTest {
 protected:
  Value job(const char* label, const char* service) const {
    return Value::map(
        {{"Label", label},
         {"ProgramArguments", Value::list({"/bin/sh", "-c", "echo start >>" + path("starts")})},
         {"MachServices", Value::map({{service, true}})}});
  }
  std::string create(const Value& job) {
    Error error;
    return supervisor_.QZSupervisorCreateService(nullptr, job, &error) ? "" : error.description();
  }
  std::string set(const String& label, bool enabled) {
    Error error;
    return supervisor_.QZSupervisorSetServiceEnabled(nullptr, label, enabled, &error)
               ? ""
               : error.description();
  }
  bool isEnabled(const String& label) {
    return supervisor_.QZSupervisorGetServiceEnabled(nullptr, label, nullptr);
  }

  EmbeddedSupervisor supervisor_{world()};
};

TEST_F(EmbeddedSupervisorTest, CreatesEnablesAndDisablesAJob) {
  EXPECT_FALSE(isEnabled("a"));
  EXPECT_EQ(create(job("a", "service")), "");
  EXPECT_FALSE(isEnabled("a"));
  EXPECT_FALSE(std::filesystem::exists(path("service")));
  EXPECT_EQ(set("a", true), "");
  EXPECT_TRUE(isEnabled("a"));
  EXPECT_TRUE(std::filesystem::exists(path("service")));
  turn();
  EXPECT_EQ(set("a", false), "");
  EXPECT_FALSE(isEnabled("a"));
  until([&] { return !std::filesystem::exists(path("service")); });
}

TEST_F(EmbeddedSupervisorTest, RefusesAServiceOfAnotherJob) {
  EXPECT_EQ(create(job("a", "service")), "");
  EXPECT_THAT(create(job("b", "service")), HasSubstr("service is a service of the job a already"));
  EXPECT_EQ(create(job("a", "other")), "");
  EXPECT_EQ(create(job("b", "service")), "");
}

TEST_F(EmbeddedSupervisorTest, AnEndingJobDoesNotAffectItsReplacement) {
  const auto described = [&](const char* script) {
    return Value::map({{"Label", "a"},
                       {"ProgramArguments", Value::list({"/bin/sh", "-c", script})},
                       {"RunAtLoad", true},
                       {"MachServices", Value::map({{"service", true}})}});
  };
  ASSERT_EQ(create(described("exec sleep 1000")), "");
  ASSERT_EQ(set("a", true), "");
  until([&] { return recorded().program == JobState::Program::running; });
  const pid_t former = recorded().processId;
  ASSERT_EQ(create(described("exec sleep 2000")), "");
  ASSERT_EQ(set("a", true), "");
  until([&] {
    const auto now = recorded();
    return ::kill(former, 0) != 0 && now.program == JobState::Program::running &&
           now.processId != former;
  });
  EXPECT_TRUE(std::filesystem::exists(path("service")));
  const pid_t pid = recorded().processId;
  ASSERT_EQ(set("a", false), "");
  until([&] { return ::kill(pid, 0) != 0; });
}

// In another process, since keeld has only one supervisor.
TEST_F(EmbeddedSupervisorTest, RefusesEverythingWhileAnotherKeeldHoldsTheLock) {
  ASSERT_EQ(create(job("a", "service")), "");
  ASSERT_EQ(set("a", true), "");
  until([&] { return recorded().label == "a"; });
  const auto refusedElsewhere = [&] {
    EmbeddedSupervisor other{world()};
    Error created, enabled, asked;
    const bool done = other.QZSupervisorCreateService(nullptr, job("b", "service"), &created) ||
                      other.QZSupervisorSetServiceEnabled(nullptr, "b", true, &enabled) ||
                      other.QZSupervisorGetServiceEnabled(nullptr, "a", &asked);
    const auto isTold = [](const Error& error) {
      return error.code() == EBUSY &&
             error.description().find("another keeld owns the jobs here") != std::string::npos;
    };
    return !done && isTold(created) && isTold(enabled) && isTold(asked);
  };
  EXPECT_EXIT(::_exit(refusedElsewhere() ? 7 : 0), testing::ExitedWithCode(7), "");
  EXPECT_EQ(recorded().label, "a");
  EXPECT_EQ(startCount(), 0u);
  const auto client = connect();
  until([&] { return startCount() == 1; });
}

TEST_F(EmbeddedSupervisorTest, OnlyRootCanAccessTheLock) {
  struct stat status{};
  ASSERT_EQ(::stat(path(".jobs.lock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
}

TEST_F(EmbeddedSupervisorTest, ReportsASocketThatCannotBeCreated) {
  std::filesystem::create_directory(path("service"));
  EXPECT_EQ(create(job("a", "service")), "");
  EXPECT_THAT(set("a", true), HasSubstr(path("service")));
  EXPECT_FALSE(isEnabled("a"));
}

TEST_F(EmbeddedSupervisorTest, RefusesInvalidLabels) {
  EXPECT_THAT(set(nullptr, true), HasSubstr("without a label"));
  EXPECT_THAT(set("a", true), HasSubstr("there is no job a"));
  EXPECT_THAT(create(Value::map({{"Label", "a"}})), HasSubstr("has neither"));
  EXPECT_THAT(set("a", true), HasSubstr("has neither"));
}

}  // namespace
}  // namespace keel
