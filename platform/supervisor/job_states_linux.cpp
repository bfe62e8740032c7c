// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/product/product.h"
#include "platform/supervisor/job_records.h"
#include "platform/supervisor/job_state.h"
#include "platform/supervisor/unit_store.h"
#include "platform/supervisor/unit_text.h"

namespace keel {

namespace {

constexpr const char* kDestination = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManager = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnit = "org.freedesktop.systemd1.Unit";
constexpr std::chrono::microseconds kAnswerDeadline = std::chrono::seconds(3);

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

// Where keeld writes it down.
class RecordedJobStates final : public JobStates {
 public:
  JobState of(const std::string& machService) override {
    JobState state = records_.read(machService);
    if (state.label.empty()) state.problem = "no job has that service";
    return state;
  }

 private:
  const JobRecords records_{kServiceDirectory};
};

// The units are there for all to read, and so is what systemd tells of them over the system bus.
class SystemdJobStates final : public JobStates {
 public:
  SystemdJobStates() {
    sd_bus* bus = nullptr;
    problem_ = sd_bus_open_system(&bus);
    bus_.reset(bus);
    if (problem_ >= 0) sd_bus_set_method_call_timeout(bus, static_cast<std::uint64_t>(kAnswerDeadline.count()));
  }

  JobState of(const std::string& machService) override {
    JobState state;
    state.label = store_.ownerOf(machService);
    std::optional<UnitStore::Stored> service;
    const std::string serviceName = state.label + ".service";
    if (state.label.empty() || store_.standingOf(serviceName, &service) != UnitStore::Standing::ours) {
      state.problem = "no job has that service";
      return state;
    }
    if (problem_ < 0) {
      state.problem = fmt::format("systemd cannot be asked: {}", std::strerror(-problem_));
      return state;
    }
    const std::string fileState = unitFileState(service->enabled);
    state.enabled = fileState == "enabled" || fileState == "enabled-runtime";
    addSocket(state, *service, machService);
    addService(state, serviceName);
    return state;
  }

 private:
  void addSocket(JobState& state, const UnitStore::Stored& service, const std::string& machService) {
    const auto socket = std::ranges::find_if(service.started, [&](const std::string& name) {
      std::optional<UnitStore::Stored> stored;
      return store_.standingOf(name, &stored) == UnitStore::Standing::ours && stored->machService == unitNameOf(machService);
    });
    if (socket == service.started.end()) return;
    const std::string active = property(*socket, kUnit, "ActiveState");
    state.listening = active == "active";
    if (!state.listening) {
      state.problem =
          fmt::format("{} is {} ({})", *socket, active, property(*socket, "org.freedesktop.systemd1.Socket", "Result"));
    }
  }

  void addService(JobState& state, const std::string& name) {
    constexpr const char* kService = "org.freedesktop.systemd1.Service";
    const std::string active = property(name, kUnit, "ActiveState");
    if (active == "active" || active == "deactivating") state.program = JobState::Program::running;
    if (active == "activating") state.program = JobState::Program::starting;
    if (active == "failed") state.program = JobState::Program::failed;
    std::uint32_t pid = 0;
    if (sd_bus_get_property_trivial(bus_.get(), kDestination, pathOf(name).c_str(), kService, "MainPID", nullptr, 'u', &pid) >=
        0) {
      state.processId = static_cast<pid_t>(pid);
    }
    const std::string result = property(name, kService, "Result");
    const bool endedBadly = state.program == JobState::Program::failed || state.program == JobState::Program::starting;
    if (endedBadly && result != "success" && state.problem.empty()) state.problem = "its last run ended with " + result;
  }

  static std::string pathOf(const std::string& unit) {
    char* path = nullptr;
    if (sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path) < 0) return kManagerPath;
    std::string text = path;
    std::free(path);
    return text;
  }

  // Empty when it cannot be had.
  std::string property(const std::string& unit, const char* interface, const char* name) {
    char* text = nullptr;
    if (sd_bus_get_property_string(bus_.get(), kDestination, pathOf(unit).c_str(), interface, name, nullptr, &text) < 0)
      return {};
    std::string value = text;
    std::free(text);
    return value;
  }

  std::string unitFileState(const std::string& unit) {
    sd_bus_message* answer = nullptr;
    const char* state = nullptr;
    std::string text;
    if (sd_bus_call_method(bus_.get(), kDestination, kManagerPath, kManager, "GetUnitFileState", nullptr, &answer, "s",
                           unit.c_str()) >= 0 &&
        sd_bus_message_read(answer, "s", &state) >= 0) {
      text = state;
    }
    sd_bus_message_unref(answer);
    return text;
  }

  UnitStore store_;
  std::unique_ptr<sd_bus, BusCloser> bus_;
  int problem_ = 0;  // a negative errno: there is no bus
};

}  // namespace

std::unique_ptr<JobStates> systemJobStates() {
  if (sd_booted() > 0) return std::make_unique<SystemdJobStates>();
  return std::make_unique<RecordedJobStates>();
}

}  // namespace keel
