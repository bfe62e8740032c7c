// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include "modules/module_manager.h"
#include "modules/module_name.h"
#include "platform/bundle/job_description.h"
#include "runtime/foundation/exception.h"
#include "runtime/logging/logger.h"

// The job of one module: the bundle's own, or a synthesized one that starts the module host on the
// first connection.

namespace keel {

namespace {

Logger& logger() {
  static Logger& startup = _loggerForCategory("startup");
  return startup;
}

// Returns the Mach service name of a bundle's own job.
String firstServiceOf(const Value& job, const std::string& bundlePath) {
  const Value* services = job.find("MachServices");
  const auto* map = services != nullptr ? services->as<Value::Map>() : nullptr;
  if (map == nullptr) return nullptr;
  if (map->empty()) {
    throw Exception(NSRangeException,
                    "index 0 beyond the end of the empty \"MachServices\" of " + bundlePath);
  }
  return String(map->front().key);
}

Value madeJob(const std::string& label, const std::string& shortName, const std::string& machName) {
  return Value::map(
      {{"Label", label},
       {"Program", kModuleProgram},
       {"Disabled", false},
       {"EnableTransactions", true},
       {"EnablePressuredExit", true},
       {"MachServices", Value::map({{machName, true}})},
       {"ProgramArguments", Value::list({kModuleProgram, "-p",
                                         std::string(kModulePrefix) + shortName, "-m", machName})},
       {"ProcessType", "Interactive"},
       {"Transient", true}});
}

}  // namespace

Value KLNModuleManager::synthesizeJobFromBundle(const std::string& path, String* returningName,
                                                String* andMachName) {
  const std::string shortName = shortNameOfBundle(path);
  JobDescription description = readJobDescription(Bundle(path));
  Value job = std::move(description.job);
  String machName;
  if (!job.isNull()) {
    machName = firstServiceOf(job, path);
  } else {
    logger().debug("synthesizeJobFromBundle: did not find a custom launchd.plist, creating one");
    const std::string label = description.label.value_or(defaultModuleLabel(shortName));
    const std::string service = description.machServiceName.value_or(defaultModuleLabel(shortName));
    job = madeJob(label, shortName, service);
    machName = String(service);
  }
  if (returningName != nullptr) *returningName = String(shortName);
  if (andMachName != nullptr) *andMachName = machName;
  return job;
}

}  // namespace keel
