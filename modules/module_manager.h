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

// Makes a job of each module of the product, and knows those whose job is enabled: "keel_" and a
// module's short name, to the Mach service name of its job. The table is written during start-up,
// on the main thread, before any client can ask, and only read afterwards.
class KLNModuleManager {
 public:
  class Override;

  // The one manager of this process, made on the first call. From any thread.
  static const std::shared_ptr<KLNModuleManager>& defaultManager();

  // For the supervisor of this system, which is not touched before it is needed, and the product's
  // bundles.
  KLNModuleManager() = default;
  KLNModuleManager(Supervisor& supervisor, std::string bundlesDirectory)
      : supervisor_(&supervisor), bundlesDirectory_(std::move(bundlesDirectory)) {}
  virtual ~KLNModuleManager() = default;
  KLNModuleManager(const KLNModuleManager&) = delete;
  KLNModuleManager& operator=(const KLNModuleManager&) = delete;

  // Loads each bundle "keel_*.bundle" of the directory, in the directory's own order. One that
  // cannot be loaded is logged and passed over; an Exception ends the walk, and what was loaded
  // until then stays. One whose name is not UTF-8 cannot be loaded, as no job could have it.
  void loadAllModules();

  // Makes and enables the job of the bundle at `path` unless it is enabled already, and writes it
  // into the table. False when it is not enabled in the end. A job without a "Label", or with one
  // that is no text, has the null label, which the supervisor refuses.
  bool loadModuleIfNeededFromPath(const std::string& path, QZCommandAuthorization* authorization);

  // Disables the job "com.vantor.keeld.SHORTNAME" of each module in the table, also where the
  // module's own label is another one, and leaves the table as it is. Whether that worked is not
  // looked at.
  void unloadAllModules();

  // The job of the bundle at `path`: the dictionary in its resource launchd.plist, as it stands, or
  // one made for it. Writes the module's short name and Mach service name unless the argument is
  // null. The Mach service name of a bundle with a job of its own is the first key of its
  // "MachServices", and null when it has no such dictionary; an empty one raises NSRangeException.
  //
  // What the bundle holds is never trusted: a file that cannot be read, or says something of the
  // wrong kind, counts as if it were not there (platform/bundle logs that, at debug level). The job
  // is never null, except from a subclass.
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
  // Of the last pass; kept as jobs may stand under it.
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
