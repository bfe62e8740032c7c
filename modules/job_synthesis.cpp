// SPDX-License-Identifier: Apache-2.0
#include "modules/module_manager.h"
#include "modules/module_name.h"
#include "platform/bundle/bundle.h"
#include "runtime/foundation/exception.h"
#include "runtime/logging/logger.h"

// The job of one module: the bundle's own, or one that starts the program that hosts modules when the first client comes.

namespace keel {

namespace {

Logger& logger() {
  static Logger& startup = _loggerForCategory("startup");
  return startup;
}

// The dictionary in the bundle's own launchd.plist, or null.
Value ownJob(const Bundle& bundle) {
  const auto path = bundle.pathForResource("launchd", "plist");
  if (!path) return nullptr;
  auto job = readDictionary(*path);
  if (job) return std::move(*job);
  logger().error("synthesizeJobFromBundle: {}; the module gets a job without it", job.error());
  return nullptr;
}

// The Mach service name of a bundle's own job.
String firstServiceOf(const Value& job, const Bundle& bundle) {
  const Value* services = job.find("MachServices");
  if (services == nullptr) return nullptr;
  const auto* map = services->as<Value::Map>();
  if (map == nullptr) {
    logger().error("synthesizeJobFromBundle: \"MachServices\" in the job of {} is no dictionary", bundle.path());
    return nullptr;
  }
  if (map->empty()) {
    throw Exception(NSRangeException, "index 0 beyond the end of the empty \"MachServices\" of " + bundle.path());
  }
  return String(map->front().key);
}

Value infoOf(const Bundle& bundle) {
  auto info = bundle.infoDictionary();
  if (info) return std::move(*info);
  logger().error("synthesizeJobFromBundle: {}; the module gets a job without it", info.error());
  return Value(Value::Map());
}

// The text under `key`, or `otherwise`.
std::string textOf(const Value& info, std::string_view key, const std::string& otherwise, const Bundle& bundle) {
  const Value* value = info.find(key);
  if (value == nullptr) return otherwise;
  if (const auto* text = value->as<std::string>()) return *text;
  logger().error("synthesizeJobFromBundle: \"{}\" in the Info.plist of {} is no text; {} is used", key, bundle.path(),
                 otherwise);
  return otherwise;
}

Value madeJob(const std::string& label, const std::string& shortName, const std::string& machName) {
  return Value::map(
      {{"Label", label},
       {"Program", kModuleProgram},
       {"Disabled", false},
       {"EnableTransactions", true},
       {"EnablePressuredExit", true},
       {"MachServices", Value::map({{machName, true}})},
       {"ProgramArguments", Value::list({kModuleProgram, "-p", std::string(kModulePrefix) + shortName, "-m", machName})},
       {"ProcessType", "Interactive"},
       {"Transient", true}});
}

}  // namespace

Value KLNModuleManager::synthesizeJobFromBundle(const std::string& path, String* returningName, String* andMachName) {
  const std::string shortName = shortNameOfBundle(path);
  const Bundle bundle(path);
  Value job = ownJob(bundle);
  String machName;
  if (!job.isNull()) {
    machName = firstServiceOf(job, bundle);
  } else {
    logger().debug("synthesizeJobFromBundle: did not find a custom launchd.plist, creating one");
    const Value info = infoOf(bundle);
    const std::string label = textOf(info, "QZJobLabel", defaultModuleLabel(shortName), bundle);
    const std::string service = textOf(info, "QZMachServiceName", defaultModuleLabel(shortName), bundle);
    job = madeJob(label, shortName, service);
    machName = String(service);
  }
  if (returningName != nullptr) *returningName = String(shortName);
  if (andMachName != nullptr) *andMachName = machName;
  return job;
}

}  // namespace keel
