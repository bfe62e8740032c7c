// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/job_units.h"
#include "runtime/transport/service_socket.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "platform/product/product.h"
#include "platform/supervisor/unit_text.h"

namespace keel {

namespace {

// The only throttle on a job's restarts (StartLimitIntervalSec=0): without it a job that fails
// immediately keeps systemd busy.
constexpr std::chrono::seconds kMinPause{1};

// Builds a unit's text line by line.
class Text {
 public:
  explicit Text(const Job& job) {
    text_ = kUnitMarker;
    note(kUnitLabelKey, unitNameOf(job.label));
  }

  // Adds a field for ourselves, directly after the marker.
  void note(std::string_view key, std::string_view value) {
    text_ += fmt::format("{}{}\n", key, value);
  }
  void section(std::string_view name) { text_ += fmt::format("\n[{}]\n", name); }
  void line(std::string_view key, std::string_view value) {
    text_ += fmt::format("{}={}\n", key, value);
  }
  // Adds a path unless it is empty.
  void path(std::string_view key, std::string_view prefix, const std::string& value) {
    if (!value.empty()) line(key, fmt::format("{}{}", prefix, plainSetting(value)));
  }
  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

std::string_view restartOf(const Job& job) {
  switch (job.restart) {
    case Job::Restart::never:
      break;
    case Job::Restart::always:
      return "always";
    case Job::Restart::afterSuccess:
      return "on-success";
    case Job::Restart::afterFailure:
      return "on-failure";
    case Job::Restart::afterCrash:
      return "on-abnormal";
  }
  // Otherwise the next or a still pending client would restart a failed program immediately, until
  // systemd gives up its socket. A delayed restart throttles it and keeps the socket alive.
  return job.machServices.empty() ? "no" : "on-failure";
}

std::string limitText(std::uint64_t bound) {
  return bound == std::numeric_limits<std::uint64_t>::max() ? "infinity" : std::to_string(bound);
}

void account(Text& text, const Job& job) {
  if (!job.userName.empty()) text.line("User", job.userName);
  if (!job.groupName.empty()) text.line("Group", job.groupName);
  text.path("RootDirectory", "", job.rootDirectory);
  text.path("WorkingDirectory", "", job.workingDirectory);
  for (const auto& [name, value] : job.environment)
    text.line("Environment", quotedWord(name + "=" + value));
}

void files(Text& text, const Job& job) {
  text.path("StandardInput", "file:", job.standardInPath);
  text.path("StandardOutput", "append:", job.standardOutPath);
  text.path("StandardError", "append:", job.standardErrorPath);
}

void scheduling(Text& text, const Job& job) {
  if (job.nice) text.line("Nice", std::to_string(*job.nice));
  if (job.background) text.line("CPUSchedulingPolicy", "batch");
  if (job.background || job.lowPriorityIO) text.line("IOSchedulingClass", "idle");
  if (job.umask) text.line("UMask", fmt::format("{:04o}", *job.umask));
  for (const Job::Limit& limit : job.limits) {
    text.line(fmt::format("Limit{}", limit.name),
              fmt::format("{}:{}", limitText(limit.soft), limitText(limit.hard)));
  }
}

void ending(Text& text, const Job& job) {
  text.line("Restart", restartOf(job));
  text.line("RestartSec", fmt::format("{}s", std::max(job.throttleInterval, kMinPause).count()));
  if (job.exitTimeOut) {
    text.line("TimeoutStopSec", job.exitTimeOut->count() == 0
                                    ? "infinity"
                                    : fmt::format("{}s", job.exitTimeOut->count()));
  }
  if (job.abandonProcessGroup) text.line("KillMode", "process");
}

// A job that nothing starts is enabled too, to be started by hand. This target does not exist.
constexpr const char* kWantedByNobody = "keeld-on-hand.target";

Unit serviceOf(const Job& job, const std::vector<std::string>& sockets, const JobUnits& all) {
  Text text(job);
  text.note(kUnitEnabledKey, all.enabled);
  text.note(kUnitStartedKey, fmt::format("{}", fmt::join(all.started, " ")));
  text.section("Unit");
  text.line("Description", plainSetting("Job " + describedText(job.label)));
  // RestartSec is the only throttle.
  text.line("StartLimitIntervalSec", "0");
  text.section("Service");
  text.line("Type", "exec");
  text.line("ExecStart", commandLine(job.program, job.arguments));
  if (!sockets.empty()) text.line("Sockets", fmt::format("{}", fmt::join(sockets, " ")));
  account(text, job);
  files(text, job);
  scheduling(text, job);
  ending(text, job);
  if (job.runAtLoad || sockets.empty()) {
    text.section("Install");
    text.line("WantedBy", job.runAtLoad ? "multi-user.target" : kWantedByNobody);
  }
  return {serviceUnitName(job.label), text.take()};
}

// `also` lists the units enabled with it.
Unit socketOf(const Job& job, std::size_t index, const std::vector<std::string>& also) {
  const std::string& name = job.machServices[index];
  Text text(job);
  text.note(kUnitMachServiceKey, unitNameOf(name));
  text.section("Unit");
  text.line("Description",
            plainSetting(fmt::format("Mach service {} of job {}", name, describedText(job.label))));
  text.section("Socket");
  text.line("ListenStream", plainSetting(fmt::format("{}/{}", kServiceDirectory, name)));
  text.line("SocketMode", "0666");
  text.line("DirectoryMode", "0755");
  text.line("FileDescriptorName", plainSetting(name));
  text.line("Service", serviceUnitName(job.label));
  text.line("RemoveOnStop", "yes");
  text.section("Install");
  text.line("WantedBy", "sockets.target");
  if (!also.empty()) text.line("Also", fmt::format("{}", fmt::join(also, " ")));
  return {socketUnitName(job.label, index), text.take()};
}

}  // namespace

std::string serviceUnitName(std::string_view label) {
  return unitNameOf(label) + ".service";
}

// ":2" is not an escape sequence, so no other label maps to such a name.
std::string socketUnitName(std::string_view label, std::size_t index) {
  return unitNameOf(label) + (index == 0 ? std::string() : fmt::format(":{}", index + 1)) +
         ".socket";
}

JobUnits unitsOf(const Job& job) {
  std::vector<std::string> sockets;
  for (std::size_t index = 0; index < job.machServices.size(); ++index)
    sockets.push_back(socketUnitName(job.label, index));
  JobUnits made;
  made.started = sockets;
  if (job.runAtLoad) made.started.push_back(serviceUnitName(job.label));
  made.enabled = sockets.empty() ? serviceUnitName(job.label) : sockets.front();

  made.units.push_back(serviceOf(job, sockets, made));
  for (std::size_t index = 0; index < sockets.size(); ++index) {
    made.units.push_back(
        socketOf(job, index,
                 index == 0 ? std::vector<std::string>(made.started.begin() + 1, made.started.end())
                            : std::vector<std::string>()));
  }
  return made;
}

}  // namespace keel
