// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "modules/module_table.h"
#include "platform/product/product.h"
#include "platform/supervisor/supervisor.h"
#include "runtime/foundation/value.h"

namespace keel {

// Creates a job for each module of the product, and keeps a table of those whose job is enabled:
// from "keel_" and the module's short name to the Mach service name of its job. The table is
// written during start-up, on the main thread, before any client can query it, and is read-only
// afterwards.
class KLNModuleManager {
 public:
  class Override;

  // Returns the process's manager, created on the first call. From any thread.
  static const std::shared_ptr<KLNModuleManager>& defaultManager();

  // Uses this system's supervisor, lazily, and the product's bundles.
  KLNModuleManager() = default;
  KLNModuleManager(Supervisor& supervisor, std::string bundlesDirectory)
      : supervisor_(&supervisor), bundlesDirectory_(std::move(bundlesDirectory)) {}
  virtual ~KLNModuleManager() = default;
  KLNModuleManager(const KLNModuleManager&) = delete;
  KLNModuleManager& operator=(const KLNModuleManager&) = delete;

  // Loads each bundle "keel_*.bundle" of the directory, in directory order. Logs and skips one that
  // cannot be loaded; an Exception stops the walk, and the modules loaded so far stay. A name that
  // is not UTF-8 cannot be loaded, since no job could have it.
  void loadAllModules();

  // Creates and enables the job of the bundle at `path` unless it is already enabled, and adds it
  // to the table. Returns false if the job is not enabled in the end. A job without a textual
  // "Label" has the null label, which the supervisor refuses.
  bool loadModuleIfNeededFromPath(const std::string& path, QZCommandAuthorization* authorization);

  // Disables the job "com.vantor.keeld.SHORTNAME" of each module in the table, even if the module's
  // own label differs, and leaves the table unchanged. Ignores failures.
  void unloadAllModules();

  // Returns the job of the bundle at `path`: the dictionary in its resource launchd.plist,
  // unchanged, or a synthesized one. Sets the module's short name and Mach service name unless the
  // argument is null. The Mach service name of a bundle with a job of its own is the first key of
  // its "MachServices", and null if it has no such dictionary; an empty one raises
  // NSRangeException.
  //
  // The bundle is not trusted: a file that cannot be read, or a value of the wrong kind, counts as
  // missing (platform/bundle logs it at debug level). The job is never null, except from a
  // subclass.
  virtual Value synthesizeJobFromBundle(const std::string& path, String* returningName,
                                        String* andMachName);

  ModuleTable& moduleTable() { return moduleTable_; }
  void setModuleTable(ModuleTable table) { moduleTable_ = std::move(table); }

 private:
  static std::shared_ptr<KLNModuleManager>& overridingManager();
  Supervisor& supervisor() const {
    return supervisor_ != nullptr ? *supervisor_ : systemSupervisor();
  }
  void loadModule(const std::string& path);
  void createAndEnable(const Value& job, const String& label);

  Supervisor* const supervisor_ = nullptr;
  const std::string bundlesDirectory_ = kBundlesDirectory;
  // Of the last pass; kept since jobs may depend on it.
  std::shared_ptr<QZCommandAuthorization> authorization_;
  ModuleTable moduleTable_;
};

// For tests: makes `manager` the default one until the token is destroyed. Tokens nest.
class KLNModuleManager::Override {
 public:
  explicit Override(std::shared_ptr<KLNModuleManager> manager);
  ~Override();
  Override(const Override&) = delete;
  Override& operator=(const Override&) = delete;

 private:
  std::shared_ptr<KLNModuleManager> outer_;
};

}  // namespace keel
