// SPDX-License-Identifier: Apache-2.0
#include "modules/module_manager.h"

#include <gtest/gtest.h>

#include "runtime/foundation/value.h"

namespace keel {
namespace {

TEST(ModuleManager, BeginsWithAnEmptyTable) {
  KLNModuleManager manager;
  EXPECT_EQ(manager.moduleTable().count(), 0u);
  EXPECT_EQ(manager.moduleTable().dictionary().value(), Value::map({}));
}

TEST(ModuleManager, TheTableCanBeReplaced) {
  KLNModuleManager manager;
  ModuleTable table;
  table.set("keel_mail", "com.vantor.keeld.mail");
  manager.setModuleTable(std::move(table));
  EXPECT_EQ(manager.moduleTable().at("keel_mail"), String("com.vantor.keeld.mail"));
}

TEST(ModuleManager, DefaultManagerIsOneUnlessOverridden) {
  const auto first = KLNModuleManager::defaultManager();
  EXPECT_NE(first, nullptr);
  {
    const auto mine = std::make_shared<KLNModuleManager>();
    const KLNModuleManager::Override override(mine);
    EXPECT_EQ(KLNModuleManager::defaultManager(), mine);
  }
  EXPECT_EQ(KLNModuleManager::defaultManager(), first);
}

}  // namespace
}  // namespace keel
