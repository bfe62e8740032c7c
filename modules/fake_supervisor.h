// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/supervisor/command_authorization.h"
#include "platform/supervisor/supervisor.h"
#include "runtime/foundation/exception.h"

namespace keel {

// For tests: records each call; everything succeeds unless the test says otherwise.
class FakeSupervisor final : public Supervisor {
 public:
  static Error fault(std::string text) { return describedError("test", 1, std::move(text)); }

  std::shared_ptr<QZCommandAuthorization> QZSupervisorCreateCommandAuthorizationWithCredentials(
      const void* first, const void* second, const void* third) override {
    const bool allNull = first == nullptr && second == nullptr && third == nullptr;
    calls_.emplace_back(allNull ? "authorize" : "authorize with credentials");
    auto made = makeCommandAuthorization();
    authorization_ = made;
    return made;
  }

  bool QZSupervisorGetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     Error* error) override {
    note(authorization, "enabled?", label);
    if (onQuery) onQuery(label);
    if (const Error fault = take(queryFaults)) *error = fault;
    return !label.isNull() && enabled.contains(std::string(label.view()));
  }

  bool QZSupervisorCreateService(QZCommandAuthorization* authorization, const Value& job,
                                 Error* error) override {
    note(authorization, "create", String(job.textOf("Label", "(null)")));
    createdJobs.push_back(job);
    if (const Error fault = take(creationFaults)) *error = fault;
    return creationWorks;
  }

  bool QZSupervisorSetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     bool isEnabled, Error* error) override {
    note(authorization,
         error == nullptr ? (isEnabled ? "enable without slot" : "disable without slot")
                          : (isEnabled ? "enable" : "disable"),
         label);
    if (const Error fault = take(enablingFaults)) *error = fault;
    if (enablingWorks && !label.isNull()) enabled.insert(std::string(label.view()));
    // The result is unused.
    return false;
  }

  // Returns the calls since the last time, such as "enabled? LABEL"; prefixed "auth: " if made with
  // the authorization created here, without a prefix if made without one.
  std::vector<std::string> calls() { return std::exchange(calls_, {}); }
  // Returns true while the authorization is alive.
  bool keepsAuthorization() const { return !authorization_.expired(); }

  std::set<std::string> enabled;
  bool creationWorks = true;
  bool enablingWorks = true;
  // The errors that the next calls set, in order; null sets none.
  std::vector<Error> queryFaults;
  std::vector<Error> creationFaults;
  std::vector<Error> enablingFaults;
  std::function<void(const String& label)> onQuery;
  std::vector<Value> createdJobs;

 private:
  static Error take(std::vector<Error>& faults) {
    if (faults.empty()) return nullptr;
    Error first = faults.front();
    faults.erase(faults.begin());
    return first;
  }

  void note(QZCommandAuthorization* authorization, std::string_view what, const String& label) {
    const bool made = authorization != nullptr && authorization == authorization_.lock().get();
    std::string call = made ? "auth: " : authorization != nullptr ? "unknown: " : "";
    calls_.push_back(
        call.append(what).append(" ").append(label.isNull() ? "(null)" : label.view()));
  }

  std::weak_ptr<QZCommandAuthorization> authorization_;
  std::vector<std::string> calls_;
};

}  // namespace keel
