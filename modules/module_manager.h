// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <utility>

#include "modules/module_table.h"

namespace keel {

// Knows the enabled modules of the product: "keel_" and a module's short name, to the Mach service name of its job. The table
// is written during start-up, before any client can ask, and only read afterwards.
class KLNModuleManager {
 public:
  class Override;

  // The one manager of this process, made on the first call. From any thread.
  static const std::shared_ptr<KLNModuleManager>& defaultManager();

  KLNModuleManager() = default;
  KLNModuleManager(const KLNModuleManager&) = delete;
  KLNModuleManager& operator=(const KLNModuleManager&) = delete;

  ModuleTable& moduleTable() { return moduleTable_; }
  void setModuleTable(ModuleTable table) { moduleTable_ = std::move(table); }

 private:
  static std::shared_ptr<KLNModuleManager>& overridingManager();

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
