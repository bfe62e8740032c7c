// SPDX-License-Identifier: Apache-2.0
// Calls systemd over the system bus or, if that does not work, over the private socket that
// systemctl(1) uses as root.
//
// keeld calls systemd while systemd is starting keeld. That cannot deadlock as long as keeld never
// waits for a job that waits for keeld: it only waits for socket jobs, which nothing orders after
// keeld, and only up to a deadline. Connecting starts a system bus that is not up yet, and every
// call has a deadline.
//
// After a missed deadline the peer is not called for a while: there are many modules, and keeld
// must start.
#include <fmt/format.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/supervisor/supervisor_error.h"
#include "platform/supervisor/system_bus.h"
#include "platform/supervisor/system_manager.h"

namespace keel {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

// Limit for connecting to one bus. A bus that works answers within a second.
constexpr std::chrono::seconds kConnectDeadline{3};
// Limit for one call. Reloading a thousand units takes one second.
constexpr std::chrono::seconds kCallDeadline{10};
// Creating a socket takes a millisecond; longer means it depends on something else, so do not wait.
constexpr std::chrono::seconds kJobDeadline{2};
// Back-off after a missed deadline.
constexpr std::chrono::seconds kSilence{30};

constexpr const char* kPrivateAddress = "unix:path=/run/systemd/private";
constexpr const char* kNoSuchUnit = "org.freedesktop.systemd1.NoSuchUnit";

class SystemdManager final : public SystemManager {
 public:
  std::expected<std::vector<std::string>, Error> unitPath() override {
    sd_bus_message* raw = nullptr;
    if (auto connected = ready("UnitPath", ""); !connected)
      return std::unexpected(connected.error());
    sd_bus_error problem{};
    const int status = sd_bus_get_property(bus_.get(), kSystemdDestination, kSystemdPath,
                                           kSystemdManager, "UnitPath", &problem, &raw, "as");
    const Message answer(raw);
    if (status < 0) return std::unexpected(failed("UnitPath", "", status, problem));
    char** folders = nullptr;
    if (sd_bus_message_read_strv(answer.get(), &folders) < 0)
      return std::unexpected(nonsense("UnitPath"));
    std::vector<std::string> path;
    for (char** each = folders; each != nullptr && *each != nullptr; ++each) {
      path.emplace_back(*each);
      std::free(*each);
    }
    std::free(static_cast<void*>(folders));
    return path;
  }

  std::expected<std::string, Error> unitFileState(const std::string& name) override {
    auto answer = call("GetUnitFileState", name, "s", name.c_str());
    if (!answer) {
      if (answer.error().code() == ENOENT) return std::string();
      return std::unexpected(answer.error());
    }
    const char* state = nullptr;
    if (sd_bus_message_read(answer->get(), "s", &state) < 0)
      return std::unexpected(nonsense("GetUnitFileState"));
    return std::string(state);
  }

  Done enable(const std::string& name, bool runtime) override {
    return done(
        call("EnableUnitFiles", name, "asbb", 1, name.c_str(), runtime ? 1 : 0, /*force=*/1));
  }
  Done disable(const std::string& name, bool runtime) override {
    return done(call("DisableUnitFiles", name, "asb", 1, name.c_str(), runtime ? 1 : 0));
  }
  Done reload() override { return done(call("Reload", "", "")); }

  Done stop(const std::string& name) override {
    auto answer = call("StopUnit", name, "ss", name.c_str(), "replace");
    if (!answer && answer.error().code() == ENOENT) return {};
    return done(std::move(answer));
  }

  Done start(const std::string& name) override {
    const auto answer = call("StartUnit", name, "ss", name.c_str(), "replace");
    if (!answer) return std::unexpected(answer.error());
    const char* job = nullptr;
    if (sd_bus_message_read(answer->get(), "o", &job) < 0)
      return std::unexpected(nonsense("StartUnit"));
    return name.ends_with(".socket") ? waitFor(job, name) : Done();
  }

 private:
  using Answer = std::expected<Message, Error>;

  static Done done(Answer answer) {
    if (!answer) return std::unexpected(answer.error());
    return {};
  }
  static Error nonsense(const char* method) {
    return supervisorError(EBADMSG, fmt::format("systemd answered {} with something else", method));
  }

  // Retries once over a new connection if the old one is lost: systemd drops it when it
  // re-executes.
  template <class... Arguments>
  Answer call(const char* method, const std::string& unit, const char* types,
              Arguments... arguments) {
    const bool fresh = bus_ == nullptr;
    Answer answer = callOnce(method, unit, types, arguments...);
    if (!answer && !fresh && bus_ == nullptr && !silent())
      return callOnce(method, unit, types, arguments...);
    return answer;
  }

  template <class... Arguments>
  Answer callOnce(const char* method, const std::string& unit, const char* types,
                  Arguments... arguments) {
    if (auto connected = ready(method, unit); !connected) return std::unexpected(connected.error());
    sd_bus_error problem{};
    sd_bus_message* raw = nullptr;
    int status = sd_bus_message_new_method_call(bus_.get(), &raw, kSystemdDestination, kSystemdPath,
                                                kSystemdManager, method);
    const Message request(raw);
    if (status >= 0 && *types != '\0')
      status = sd_bus_message_append(request.get(), types, arguments...);
    if (status < 0) return std::unexpected(failed(method, unit, status, problem));

    raw = nullptr;
    const auto deadline = static_cast<std::uint64_t>(microseconds(kCallDeadline).count());
    status = sd_bus_call(bus_.get(), request.get(), deadline, &problem, &raw);
    Message answer(raw);
    if (status >= 0) return answer;
    return std::unexpected(failed(method, unit, status, problem));
  }

  static std::string named(const char* method, const std::string& unit) {
    return unit.empty() ? std::string(method) : fmt::format("{} of {}", method, unit);
  }

  // Maps a failed call to an error, and updates the state of the connection.
  Error failed(const char* method, const std::string& unit, int status, sd_bus_error& problem) {
    Error error = errorOf(method, unit, status, &problem);
    sd_bus_error_free(&problem);
    return error;
  }
  Error errorOf(const char* method, const std::string& unit, int status,
                const sd_bus_error* problem) {
    const bool told = sd_bus_error_is_set(problem) != 0;
    const int code = -status;
    if (code == ETIMEDOUT || (told && sd_bus_error_has_name(problem, SD_BUS_ERROR_NO_REPLY) != 0)) {
      bus_.reset();
      silentUntil_ = Clock::now() + kSilence;
      return supervisorError(ETIMEDOUT, fmt::format("systemd did not answer {} within {} s",
                                                    named(method, unit), kCallDeadline.count()));
    }
    if (code == ECONNRESET || code == ENOTCONN || code == EPIPE || code == ESHUTDOWN) bus_.reset();
    if (told && sd_bus_error_has_name(problem, kNoSuchUnit) != 0) {
      return supervisorError(ENOENT, fmt::format("there is no unit {}", unit));
    }
    const char* why = told && problem->message != nullptr ? problem->message : std::strerror(code);
    return supervisorError(code, fmt::format("systemd refused {}: {}", named(method, unit), why));
  }

  bool silent() const { return silentUntil_ && Clock::now() < *silentUntil_; }

  // Connects if necessary; fails during the back-off.
  Done ready(const char* method, const std::string& unit) {
    if (!silent()) return connect();
    return std::unexpected(supervisorError(
        ETIMEDOUT, fmt::format("systemd is not called for {}: it did not answer before",
                               named(method, unit))));
  }

  Done connect() {
    if (bus_ != nullptr) return {};
    const int bySystemBus = open(&SystemdManager::openSystemBus, kSystemdDestination);
    if (bySystemBus >= 0) return {};
    // A private connection has no other peer and no bus names.
    const int byPrivate = open(&SystemdManager::openPrivate, /*sender=*/nullptr);
    if (byPrivate >= 0) return {};
    if (byPrivate == -ETIMEDOUT) silentUntil_ = Clock::now() + kSilence;
    // Hides the errno, which may be ENOENT for a missing socket: that would mean an unknown unit.
    return std::unexpected(supervisorError(
        ENOTCONN,
        fmt::format("systemd cannot be reached, neither over the system bus ({}) nor directly ({})",
                    std::strerror(-bySystemBus), std::strerror(-byPrivate))));
  }

  // Opens with `openBus` and waits until the bus is ready.
  int open(int (*openBus)(sd_bus** bus), const char* sender) {
    const auto deadline = Clock::now() + kConnectDeadline;
    sd_bus* raw = nullptr;
    int status = openBus(&raw);
    Bus bus(raw);
    if (status < 0) return status;
    sd_bus_set_method_call_timeout(
        bus.get(), static_cast<std::uint64_t>(microseconds(kConnectDeadline).count()));
    status = waitUntilReady(*bus, deadline);
    if (status < 0) return status;
    status = sd_bus_match_signal(bus.get(), nullptr, sender, kSystemdPath, kSystemdManager,
                                 "JobRemoved", &SystemdManager::jobRemoved, this);
    if (status < 0) return status;
    // Without it systemd sends no job signals. Fails if this connection is already subscribed.
    status = sd_bus_call_method(bus.get(), kSystemdDestination, kSystemdPath, kSystemdManager,
                                "Subscribe", nullptr, nullptr, "");
    if (status == -ETIMEDOUT) return status;
    sd_bus_set_method_call_timeout(bus.get(),
                                   static_cast<std::uint64_t>(microseconds(kCallDeadline).count()));
    bus_ = std::move(bus);
    return 0;
  }

  static int openSystemBus(sd_bus** bus) { return sd_bus_open_system(bus); }

  static int openPrivate(sd_bus** bus) {
    int status = sd_bus_new(bus);
    if (status >= 0) status = sd_bus_set_address(*bus, kPrivateAddress);
    if (status >= 0) status = sd_bus_start(*bus);
    return status;
  }

  static int jobRemoved(sd_bus_message* message, void* self, sd_bus_error*) {
    std::uint32_t id = 0;
    const char *job = nullptr, *unit = nullptr, *result = nullptr;
    if (sd_bus_message_read(message, "uoss", &id, &job, &unit, &result) < 0) return 0;
    auto& manager = *static_cast<SystemdManager*>(self);
    if (manager.awaitedJob_ == job) manager.result_ = result;
    return 0;
  }

  Done waitFor(const char* job, const std::string& unit) {
    awaitedJob_ = job;
    result_.clear();
    const auto deadline = Clock::now() + kJobDeadline;
    while (result_.empty()) {
      const int processed = sd_bus_process(bus_.get(), nullptr);
      const auto left = microsecondsUntil(deadline);
      if (processed < 0 || left == 0) return {};
      if (processed == 0) sd_bus_wait(bus_.get(), left);
    }
    if (result_ == "done" || result_ == "skipped") return {};
    return std::unexpected(supervisorError(
        EIO,
        fmt::format("{} did not start ({}); systemctl status {} says why", unit, result_, unit)));
  }

  Bus bus_;
  std::optional<Clock::time_point> silentUntil_;
  std::string awaitedJob_;
  std::string result_;  // empty: not removed yet
};

}  // namespace

std::unique_ptr<SystemManager> connectSystemManager() {
  return std::make_unique<SystemdManager>();
}

}  // namespace keel
