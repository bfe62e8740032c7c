// SPDX-License-Identifier: Apache-2.0
// Calls this system's supervisor for a test: each line of standard input is a call in JSON, each
// line of standard output its answer.
//
//   {"call": "create", "job": {...}}  {"call": "enabled", "label": "..."}  {"call": "set", "label":
//   "...", "enabled": true}
//   {"answer": true, "error": null or "..."}
#include <iostream>
#include <string>

#include "platform/supervisor/supervisor.h"
#include "runtime/logging/log_system.h"
#include "tools/json_value.h"

namespace {

using keel::Value;

Value answerTo(const Value& call) {
  keel::Supervisor& supervisor = keel::systemSupervisor();
  const std::string_view operation = call.textOf("call"), label = call.textOf("label");
  keel::Error error;
  bool answer = false;
  if (operation == "create") {
    answer = supervisor.QZSupervisorCreateService(nullptr, *call.find("job"), &error);
  } else if (operation == "set") {
    answer = supervisor.QZSupervisorSetServiceEnabled(nullptr, label,
                                                      *call.find("enabled") == Value(true), &error);
  } else {
    answer = supervisor.QZSupervisorGetServiceEnabled(nullptr, label, &error);
  }
  return Value::map({{"answer", answer}, {"error", error ? Value(error.description()) : Value()}});
}

}  // namespace

int main() {
  keel::startLogging(keel::defaultOutput(), "debug");
  for (std::string line; std::getline(std::cin, line);) {
    const auto call = keel::valueOfJson(line);
    if (!call) {
      std::cerr << call.error() << "\n";
      return 2;
    }
    std::cout << keel::jsonOf(answerTo(*call)) << std::endl;
  }
  return 0;
}
