// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/job_units.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace keel {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

Job plainJob() {
  Job job;
  job.label = "com.example.job";
  job.program = "/bin/job";
  job.arguments = {"/bin/job", "-x"};
  return job;
}

std::string serviceOf(const Job& job) {
  return unitsOf(job).units.front().text;
}

TEST(JobUnits, OnDemandJobIsAServiceAndASocket) {
  Job job = plainJob();
  job.machServices = {"com.example.service"};
  const JobUnits made = unitsOf(job);
  ASSERT_EQ(made.units.size(), 2u);
  EXPECT_EQ(made.enabled, "com.example.job.socket");
  EXPECT_THAT(made.started, ElementsAre("com.example.job.socket"));
  EXPECT_EQ(made.units[0].name, "com.example.job.service");
  EXPECT_EQ(made.units[0].text,
            "# Made by keeld; changes are lost. Use systemctl edit instead.\n"
            "[X-Keel]\n"
            "Label=com.example.job\n"
            "Enabled=com.example.job.socket\n"
            "Started=com.example.job.socket\n"
            "\n[Unit]\n"
            "Description=Job com.example.job\n"
            "StartLimitIntervalSec=0\n"
            "\n[Service]\n"
            "Type=exec\n"
            "ExecStart=:@\"/bin/job\" \"/bin/job\" \"-x\"\n"
            "Sockets=com.example.job.socket\n"
            "Restart=on-failure\n"
            "RestartSec=10s\n");
  EXPECT_EQ(made.units[1].name, "com.example.job.socket");
  EXPECT_EQ(made.units[1].text,
            "# Made by keeld; changes are lost. Use systemctl edit instead.\n"
            "[X-Keel]\n"
            "Label=com.example.job\n"
            "MachService=com.example.service\n"
            "\n[Unit]\n"
            "Description=Mach service com.example.service of job com.example.job\n"
            "\n[Socket]\n"
            "ListenStream=/run/keeld/com.example.service\n"
            "SocketMode=0666\n"
            "DirectoryMode=0755\n"
            "FileDescriptorName=com.example.service\n"
            "Service=com.example.job.service\n"
            "RemoveOnStop=yes\n"
            "\n[Install]\n"
            "WantedBy=sockets.target\n");
}

TEST(JobUnits, EveryServiceHasASocketAndTheFirstEnablesAll) {
  Job job = plainJob();
  job.machServices = {"a", "b", "c"};
  job.runAtLoad = true;
  const JobUnits made = unitsOf(job);
  EXPECT_EQ(made.enabled, "com.example.job.socket");
  EXPECT_THAT(made.started, ElementsAre("com.example.job.socket", "com.example.job:2.socket",
                                        "com.example.job:3.socket", "com.example.job.service"));
  EXPECT_THAT(
      made.units[0].text,
      HasSubstr(
          "\nSockets=com.example.job.socket com.example.job:2.socket com.example.job:3.socket\n"));
  EXPECT_THAT(
      made.units[1].text,
      HasSubstr(
          "\nAlso=com.example.job:2.socket com.example.job:3.socket com.example.job.service\n"));
  EXPECT_THAT(made.units[2].text,
              AllOf(HasSubstr("\nFileDescriptorName=b\n"), Not(HasSubstr("Also="))));
}

TEST(JobUnits, EnablesAJobThatNothingStarts) {
  const JobUnits made = unitsOf(plainJob());
  EXPECT_EQ(made.enabled, "com.example.job.service");
  EXPECT_TRUE(made.started.empty());
  EXPECT_THAT(made.units[0].text, HasSubstr("\n[Install]\nWantedBy=keeld-on-hand.target\n"));
}

TEST(JobUnits, RunAtLoadStartsWithTheMachine) {
  Job job = plainJob();
  job.runAtLoad = true;
  EXPECT_EQ(unitsOf(job).enabled, "com.example.job.service");
  EXPECT_THAT(unitsOf(job).started, ElementsAre("com.example.job.service"));
  EXPECT_THAT(serviceOf(job), HasSubstr("\n[Install]\nWantedBy=multi-user.target\n"));
}

TEST(JobUnits, RestartFollowsKeepAlive) {
  Job job = plainJob();
  const auto line = [&](Job::Restart restart) {
    job.restart = restart;
    const std::string text = serviceOf(job);
    const auto begin = text.find("\nRestart=") + 1;
    return text.substr(begin, text.find('\n', begin) - begin);
  };
  EXPECT_EQ(line(Job::Restart::never), "Restart=no");
  EXPECT_EQ(line(Job::Restart::always), "Restart=always");
  EXPECT_EQ(line(Job::Restart::afterSuccess), "Restart=on-success");
  EXPECT_EQ(line(Job::Restart::afterFailure), "Restart=on-failure");
  EXPECT_EQ(line(Job::Restart::afterCrash), "Restart=on-abnormal");
}

TEST(JobUnits, EveryRestartIsThrottled) {
  Job job = plainJob();
  const auto line = [&](int seconds) {
    job.throttleInterval = std::chrono::seconds(seconds);
    const std::string text = serviceOf(job);
    const auto begin = text.find("\nRestartSec=") + 1;
    return text.substr(begin, text.find('\n', begin) - begin);
  };
  EXPECT_EQ(line(0), "RestartSec=1s");
  EXPECT_EQ(line(1), "RestartSec=1s");
  EXPECT_EQ(line(2), "RestartSec=2s");
}

TEST(JobUnits, SettingsFollowTheJob) {
  Job job = plainJob();
  job.userName = "alice";
  job.groupName = "staff";
  job.workingDirectory = "/a b%";
  job.rootDirectory = "/r";
  job.standardInPath = "/i";
  job.standardOutPath = "/o";
  job.standardErrorPath = "/e";
  job.environment = {{"A", "1\n%"}, {"B", ""}};
  job.throttleInterval = std::chrono::seconds(3);
  job.exitTimeOut = std::chrono::seconds(0);
  job.nice = -3;
  job.umask = 027;
  job.limits = {{0, "NOFILE", 10, 20}, {0, "CORE", 0, 0}};
  job.background = true;
  job.abandonProcessGroup = true;
  const std::string text = serviceOf(job);
  for (const char* line :
       {"User=alice", "Group=staff", "WorkingDirectory=/a b%%", "RootDirectory=/r",
        "StandardInput=file:/i", "StandardOutput=append:/o", "StandardError=append:/e",
        "Environment=\"A=1\\x0a%%\"", "Environment=\"B=\"", "RestartSec=3s",
        "TimeoutStopSec=infinity", "Nice=-3", "UMask=0027", "LimitNOFILE=10:20", "LimitCORE=0:0",
        "CPUSchedulingPolicy=batch", "IOSchedulingClass=idle", "KillMode=process"}) {
    EXPECT_THAT(text, HasSubstr(std::string("\n") + line + "\n"));
  }
}

// No text of a job can add a line to its unit.
TEST(JobUnits, NoTextInjectsALine) {
  Job job = plainJob();
  job.label = "x\n[Service]\nExecStartPre=/bin/sh\n%n\\";
  job.arguments = {"a\nExecStartPost=/bin/sh", "\\", "\"\n"};
  job.environment = {{"A", "\"\nUser=root\n"}};
  job.machServices = {"s%n\""};
  for (const Unit& unit : unitsOf(job).units) {
    EXPECT_EQ(unit.name.find_first_not_of(
                  "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:_.-"),
              std::string::npos);
    EXPECT_THAT(unit.text, AllOf(Not(HasSubstr("\nExecStartP")), Not(HasSubstr("\nUser=")),
                                 Not(HasSubstr("\\\n"))));
    std::size_t sections = 0;
    for (std::size_t at = 0; (at = unit.text.find("\n[", at)) != std::string::npos; ++at)
      ++sections;
    EXPECT_EQ(sections, unit.name.ends_with(".socket") ? 4u : 3u) << unit.text;
  }
}

}  // namespace
}  // namespace keel
