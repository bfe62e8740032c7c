// SPDX-License-Identifier: Apache-2.0
#include "modules/module_manager.h"

#include <utility>
#include <vector>

#include "modules/module_name.h"
#include "platform/bundle/directory_listing.h"
#include "runtime/foundation/exception.h"
#include "runtime/foundation/utf8.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& logger() {
  static Logger& startup = _loggerForCategory("startup");
  return startup;
}

String labelOf(const Value& job) {
  const Value* label = job.find("Label");
  const auto* text = label != nullptr ? label->as<std::string>() : nullptr;
  return text != nullptr ? String(*text) : String();
}

void logFailedQuery(const Error& failure) {
  if (failure)
    logger().error("loadModuleIfNeededFromPath QZSupervisorGetServiceEnabled returns {}", failure);
}

std::string appendingPathComponent(const std::string& directory, const std::string& name) {
  return directory.ends_with('/') ? directory + name : directory + '/' + name;
}

}  // namespace

const std::shared_ptr<KLNModuleManager>& KLNModuleManager::defaultManager() {
  if (const auto& overriding = overridingManager()) [[unlikely]]
    return overriding;
  // Never destroyed: other threads use it until the process exits.
  static const auto& manager =
      *new std::shared_ptr<KLNModuleManager>(std::make_shared<KLNModuleManager>());
  return manager;
}

void KLNModuleManager::loadAllModules() {
  const auto names = contentsOfDirectory(bundlesDirectory_);
  if (!names) {
    logger().error("loadAllModules: can't find {} error {}", bundlesDirectory_, names.error());
    return;
  }
  authorization_ =
      supervisor().QZSupervisorCreateCommandAuthorizationWithCredentials(nullptr, nullptr, nullptr);
  try {
    for (const std::string& name : *names) {
      if (isModuleBundle(name)) loadModule(appendingPathComponent(bundlesDirectory_, name));
    }
  } catch (const Exception& raised) {
    logger().error("loadAllModules: received an exception {}", raised.description());
  }
  if (logger().enabled(LogLevel::debug)) {
    logger().debug("loadAllModules: moduleTable is {}",
                   moduleTable_.dictionary().value().description());
  }
}

void KLNModuleManager::loadModule(const std::string& path) {
  if (!isUtf8(path)) {
    logger().error("loadAllModules: the name of {} is not UTF-8; give it another one", path);
    logger().error("loadAllModules: can't load module at {}", path);
  } else if (loadModuleIfNeededFromPath(path, authorization_.get())) {
    logger().debug("loadAllModules: loaded {}", path);
  } else {
    logger().error("loadAllModules: can't load module at {}", path);
  }
}

bool KLNModuleManager::loadModuleIfNeededFromPath(const std::string& path,
                                                  QZCommandAuthorization* authorization) {
  String name, machName;
  const Value job = synthesizeJobFromBundle(path, &name, &machName);
  if (job.isNull()) {
    logger().error("loadModuleIfNeededFromPath failed to crete a jobDict for {}", path);
    return false;
  }
  const String label = labelOf(job);
  Error failure;
  if (!supervisor().QZSupervisorGetServiceEnabled(authorization, label, &failure)) {
    logFailedQuery(failure);
    logger().debug("loadModuleIfNeededFromPath service {} is not enabled ", label);
    createAndEnable(job, label);
    Error lastFailure;
    const bool enabled = supervisor().QZSupervisorGetServiceEnabled(nullptr, label, &lastFailure);
    logFailedQuery(lastFailure);
    if (!enabled) return false;
  }
  moduleTable_.set(String(std::string(kModulePrefix).append(name.view())), machName);
  return true;
}

void KLNModuleManager::createAndEnable(const Value& job, const String& label) {
  Error created, enabled;
  // An error set by a successful creation is logged with the next step; that of a failed one is
  // dropped, since the failed enabling is logged anyway.
  if (supervisor().QZSupervisorCreateService(nullptr, job, &created)) enabled = created;
  logger().debug("loadModuleIfNeededFromPath created {}", label);

  supervisor().QZSupervisorSetServiceEnabled(nullptr, label, /*enabled=*/true, &enabled);
  if (enabled)
    logger().error("loadModuleIfNeededFromPath QZSupervisorSetServiceEnabled returns {}", enabled);
  logger().debug("loadModuleIfNeededFromPath enabled {}", label);
}

void KLNModuleManager::unloadAllModules() {
  for (const String& key : moduleTable_.allKeys()) {
    const std::string label = defaultModuleLabel(withoutModulePrefix(key.view()));
    supervisor().QZSupervisorSetServiceEnabled(nullptr, String(label), /*enabled=*/false, nullptr);
  }
}

std::shared_ptr<KLNModuleManager>& KLNModuleManager::overridingManager() {
  static auto& manager = *new std::shared_ptr<KLNModuleManager>();
  return manager;
}

KLNModuleManager::Override::Override(std::shared_ptr<KLNModuleManager> manager)
    : outer_(std::exchange(overridingManager(), std::move(manager))) {}

KLNModuleManager::Override::~Override() {
  overridingManager() = std::move(outer_);
}

}  // namespace keel
