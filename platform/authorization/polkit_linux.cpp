// SPDX-License-Identifier: Apache-2.0
//
// polkit trusts what its caller states about the subject, above all the user. So we pass what the
// kernel reported about the process when it connected, never what a client claims. polkit itself
// detects an exited process with a reused pid, provided it gets the start time; 0 would ask it to
// look that up, and is never sent.
//
// Each call uses its own bus connection, with one deadline over all steps: connecting, the bus's
// Hello, the answer. sd_bus_call(3) would wait for the Hello much longer.
#include "platform/authorization/polkit.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

namespace keel {

namespace {

using Clock = std::chrono::steady_clock;

struct Release {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using Bus = std::unique_ptr<sd_bus, Release>;
using Message = std::unique_ptr<sd_bus_message, Release>;
using Slot = std::unique_ptr<sd_bus_slot, Release>;

constexpr std::uint32_t kAllowUserInteraction = 1;

RightAnswer couldNot(const char* step, int problem) {
  return {errAuthorizationInternal, std::string(step) + ": " + std::strerror(problem)};
}

// No bus, or no owner of that name: there is no polkit here.
bool isAbsence(int problem) {
  return problem == ENOENT || problem == ECONNREFUSED;
}
bool isAbsence(std::string_view errorName) {
  return errorName == SD_BUS_ERROR_SERVICE_UNKNOWN || errorName == SD_BUS_ERROR_NAME_HAS_NO_OWNER;
}

int appendSubject(sd_bus_message* message, const xpc::PeerIdentity& process) {
  return sd_bus_message_append(
      message, "(sa{sv})", "unix-process", 3, "pid", "u", static_cast<std::uint32_t>(process.pid),
      "start-time", "t", process.startTime, "uid", "i", static_cast<std::int32_t>(process.uid));
}

RightAnswer readAnswer(sd_bus_message* answer) {
  if (const sd_bus_error* error = sd_bus_message_get_error(answer); error != nullptr) {
    if (isAbsence(error->name)) return {errAuthorizationDenied, {}};
    return {errAuthorizationInternal, error->message != nullptr ? error->message : error->name};
  }
  int isAuthorized = 0;
  int isChallenge = 0;
  // Details follow, unused here.
  int read = sd_bus_message_enter_container(answer, SD_BUS_TYPE_STRUCT, "bba{ss}");
  if (read >= 0) read = sd_bus_message_read(answer, "bb", &isAuthorized, &isChallenge);
  if (read <= 0) return couldNot("polkit's answer cannot be read", read < 0 ? -read : EBADMSG);
  if (isAuthorized != 0) return {errAuthorizationSuccess, {}};
  return {isChallenge != 0 ? errAuthorizationInteractionNotAllowed : errAuthorizationDenied, {}};
}

int onAnswer(sd_bus_message* answer, void* received, sd_bus_error*) {
  static_cast<Message*>(received)->reset(sd_bus_message_ref(answer));
  return 0;
}

// Processes the bus until the answer arrives.
RightAnswer awaitAnswer(sd_bus* bus, const Message& answer, Clock::time_point end) {
  while (!answer) {
    const int progress = sd_bus_process(bus, nullptr);
    if (progress < 0) return couldNot("the system bus failed", -progress);
    if (progress > 0) continue;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now());
    if (left.count() <= 0) return {errAuthorizationInternal, "no answer in time"};
    if (const int waited = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
        waited < 0 && waited != -EINTR) {
      return couldNot("the system bus failed", -waited);
    }
  }
  return readAnswer(answer.get());
}

}  // namespace

RightAnswer askPolkit(const xpc::PeerIdentity& process, const char* right, Interaction interaction,
                      std::chrono::milliseconds patience) {
  const Clock::time_point end = Clock::now() + patience;
  if (process.pid <= 0 || process.startTime == 0) return {errAuthorizationInvalidRef, {}};
  sd_bus* opened = nullptr;
  if (const int failed = sd_bus_open_system(&opened); failed < 0) {
    if (isAbsence(-failed)) return {errAuthorizationDenied, {}};
    return couldNot("the system bus cannot be reached", -failed);
  }
  const Bus bus(opened);
  sd_bus_message* made = nullptr;
  int failed = sd_bus_message_new_method_call(
      bus.get(), &made, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
      "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
  const Message request(made);
  if (failed >= 0) failed = appendSubject(made, process);
  const std::uint32_t flags = interaction == Interaction::allowed ? kAllowUserInteraction : 0;
  // No details and no cancellation id: closing the connection cancels the request.
  if (failed >= 0) failed = sd_bus_message_append(made, "sa{ss}us", right, 0, flags, "");
  if (failed < 0) return couldNot("polkit cannot be queried", -failed);
  Message answer;
  sd_bus_slot* waiting = nullptr;
  failed =
      sd_bus_call_async(bus.get(), &waiting, made, &onAnswer, &answer,
                        static_cast<std::uint64_t>(std::chrono::microseconds(patience).count()));
  const Slot slot(waiting);
  if (failed < 0) return couldNot("polkit cannot be queried", -failed);
  return awaitAnswer(bus.get(), answer, end);
}

}  // namespace keel
