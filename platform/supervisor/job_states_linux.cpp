// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include "platform/product/product.h"
#include "platform/supervisor/job_records.h"
#include "platform/supervisor/job_state.h"
#include "platform/supervisor/system_bus.h"
#include "platform/supervisor/unit_store.h"
#include "platform/supervisor/unit_text.h"
#include "runtime/transport/service_socket.h"

namespace keel {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUnit = "org.freedesktop.systemd1.Unit";
constexpr const char* kSocket = "org.freedesktop.systemd1.Socket";
constexpr const char* kService = "org.freedesktop.systemd1.Service";
// Covers connecting and all queries together. A thousand modules take half a second.
constexpr std::chrono::seconds kAnswerDeadline{5};

// Reads keeld's own records.
class RecordedJobStates final : public JobStates {
 public:
  JobState of(const std::string& machService) override {
    JobState state = records_.read(machService);
    if (!state.known) state.problem = "no job has that service";
    return state;
  }

 private:
  const JobRecords records_{kServiceDirectory};
};

// Queries systemd about units over the system bus; errors are for display. Once it is unresponsive
// or unreachable, it is not queried again.
class UnitQuestions {
 public:
  template <class T>
  using Answer = std::expected<T, std::string>;

  Answer<std::string> text(const std::string& unit, const char* interface, const char* property) {
    char* raw = nullptr;
    const int status = ask([&](sd_bus* bus) {
      return sd_bus_get_property_string(bus, kSystemdDestination, pathOf(unit).c_str(), interface,
                                        property, nullptr, &raw);
    });
    const std::unique_ptr<char, decltype(&std::free)> owned(raw, &std::free);
    if (status < 0) return std::unexpected(reasonFor(status));
    return std::string(raw);
  }

  Answer<pid_t> mainProcess(const std::string& service) {
    std::uint32_t process = 0;
    const int status = ask([&](sd_bus* bus) {
      return sd_bus_get_property_trivial(bus, kSystemdDestination, pathOf(service).c_str(),
                                         kService, "MainPID", nullptr, 'u', &process);
    });
    if (status < 0) return std::unexpected(reasonFor(status));
    return static_cast<pid_t>(process);
  }

 private:
  // Returns the result of `call`: a negative errno if there is no answer.
  template <class Call>
  int ask(Call call) {
    if (failure_ >= 0 && !bus_) failure_ = connect();
    if (failure_ < 0) return failure_;
    const auto left = microsecondsUntil(deadline_);
    if (left == 0) return failure_ = -ETIMEDOUT;
    sd_bus_set_method_call_timeout(bus_.get(), left);
    const int status = call(bus_.get());
    if (status == -ETIMEDOUT || (status < 0 && sd_bus_is_open(bus_.get()) <= 0)) failure_ = status;
    return status;
  }

  int connect() {
    deadline_ = Clock::now() + kAnswerDeadline;
    sd_bus* raw = nullptr;
    const int status = sd_bus_open_system(&raw);
    bus_.reset(raw);
    return status < 0 ? status : waitUntilReady(*raw, deadline_);
  }

  static std::string reasonFor(int status) {
    if (status == -ETIMEDOUT)
      return fmt::format("systemd did not answer within {} s", kAnswerDeadline.count());
    return fmt::format("systemd cannot be queried: {}", std::strerror(-status));
  }

  static std::string pathOf(const std::string& unit) {
    char* path = nullptr;
    if (sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path) < 0)
      return kSystemdPath;
    std::string text = path;
    std::free(path);
    return text;
  }

  Bus bus_;
  Clock::time_point deadline_;  // starts with the first query
  int failure_ = 0;             // a negative errno stops all further queries
};

// Returns the enabled units: each is linked from a unit that wants it. systemd scans these folders
// anew for every query, which takes seconds for a thousand modules.
std::set<std::string, std::less<>> enabledUnits() {
  namespace fs = std::filesystem;
  std::set<std::string, std::less<>> enabled;
  std::error_code ignored;
  for (const std::string& folder :
       {UnitStore::Directories().runtime, UnitStore::Directories().persistent}) {
    for (const auto& wanting : fs::directory_iterator(folder, ignored)) {
      const std::string extension = wanting.path().extension();
      if (extension != ".wants" && extension != ".requires") continue;
      for (const auto& link : fs::directory_iterator(wanting, ignored))
        enabled.insert(link.path().filename());
    }
  }
  return enabled;
}

// Reads the units, which are world-readable, from disk, and their state from systemd.
class SystemdJobStates final : public JobStates {
 public:
  JobState of(const std::string& machService) override {
    JobState state{.label = store_.ownerOf(machService)};
    std::optional<UnitStore::Stored> service;
    const std::string serviceName = state.label + ".service";
    if (state.label.empty() ||
        store_.standingOf(serviceName, &service) != UnitStore::Standing::ours) {
      state.problem = "no job has that service";
      return state;
    }
    state.enabled = enabled_.contains(service->enabled);
    Found found = addSocket(state, *service, machService);
    if (found) found = addService(state, serviceName);
    if (!found) return {.label = state.label, .problem = found.error()};
    state.known = true;
    return state;
  }

 private:
  using Found = UnitQuestions::Answer<void>;

  Found addSocket(JobState& state, const UnitStore::Stored& service,
                  const std::string& machService) {
    const auto socket = std::ranges::find_if(service.started, [&](const std::string& name) {
      std::optional<UnitStore::Stored> stored;
      return store_.standingOf(name, &stored) == UnitStore::Standing::ours &&
             stored->machService == unitNameOf(machService);
    });
    if (socket == service.started.end()) return {};
    const auto active = systemd_.text(*socket, kUnit, "ActiveState");
    if (!active) return std::unexpected(active.error());
    state.listening = *active == "active";
    if (state.listening) return {};
    const auto result = systemd_.text(*socket, kSocket, "Result");
    if (!result) return std::unexpected(result.error());
    state.problem = fmt::format("{} is {} ({})", *socket, *active, *result);
    return {};
  }

  Found addService(JobState& state, const std::string& name) {
    const auto active = systemd_.text(name, kUnit, "ActiveState");
    if (!active) return std::unexpected(active.error());
    state.program = programOf(*active);
    if (state.program == JobState::Program::none) return {};
    const auto process = systemd_.mainProcess(name);
    if (!process) return std::unexpected(process.error());
    state.processId = *process;
    if (state.program == JobState::Program::running) return {};
    const auto result = systemd_.text(name, kService, "Result");
    if (!result) return std::unexpected(result.error());
    if (*result != "success" && state.problem.empty())
      state.problem = "its last run ended with " + *result;
    return {};
  }

  static JobState::Program programOf(std::string_view active) {
    if (active == "active" || active == "reloading" || active == "deactivating")
      return JobState::Program::running;
    if (active == "activating") return JobState::Program::starting;
    return active == "failed" ? JobState::Program::failed : JobState::Program::none;
  }

  UnitStore store_;
  const std::set<std::string, std::less<>> enabled_ = enabledUnits();
  UnitQuestions systemd_;
};

}  // namespace

std::unique_ptr<JobStates> systemJobStates() {
  if (sd_booted() > 0) return std::make_unique<SystemdJobStates>();
  return std::make_unique<RecordedJobStates>();
}

}  // namespace keel
