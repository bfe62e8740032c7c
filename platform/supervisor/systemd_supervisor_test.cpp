// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/systemd_supervisor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include "platform/supervisor/budgeted_system_manager.h"
#include "platform/supervisor/supervisor_error.h"
#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Records its calls and returns preset answers.
class FakeManager final : public SystemManager {
 public:
  struct Told {
    std::vector<std::string> calls;
    std::map<std::string, std::string> states;
    std::vector<std::string> unitPath;
    std::string failing;  // a call, as recorded
    // The current time, and the duration of a call.
    BudgetedSystemManager::Clock::time_point now{};
    std::chrono::seconds delay{0};
  };
  explicit FakeManager(Told& told) : told_(told) {}

  std::expected<std::vector<std::string>, Error> unitPath() override {
    if (auto noted = note("unit path"); !noted) return std::unexpected(noted.error());
    return told_.unitPath;
  }
  std::expected<std::string, Error> unitFileState(const std::string& name) override {
    if (auto noted = note("state " + name); !noted) return std::unexpected(noted.error());
    const auto found = told_.states.find(name);
    return found == told_.states.end() ? std::string() : found->second;
  }
  Done enable(const std::string& name, bool runtime) override {
    auto noted = note(std::string(runtime ? "enable-runtime " : "enable ") + name);
    if (noted) told_.states[name] = runtime ? "enabled-runtime" : "enabled";
    return noted;
  }
  Done disable(const std::string& name, bool runtime) override {
    told_.states[name] = "disabled";
    return note(std::string(runtime ? "disable-runtime " : "disable ") + name);
  }
  Done start(const std::string& name) override { return note("start " + name); }
  Done stop(const std::string& name) override { return note("stop " + name); }
  Done reload() override { return note("reload"); }

 private:
  Done note(std::string call) {
    told_.calls.push_back(call);
    told_.now += told_.delay;
    if (call == told_.failing) return std::unexpected(supervisorError(EIO, "no " + call));
    return {};
  }
  Told& told_;
};

class SystemdSupervisorTest : public testing::Test {
 protected:
  SystemdSupervisorTest() {
    for (const char* name : {"run", "etc", "lib"}) folder_.makeFolder(name);
    told_.unitPath = {persistent(), runtime(), vendor()};
    restart();
  }

  // As after a restart of keeld.
  void restart() {
    supervisor_ = std::make_unique<SystemdSupervisor>(
        std::make_unique<FakeManager>(told_),
        UnitStore({.runtime = runtime(), .persistent = persistent()}));
  }

  std::string runtime() const { return folder_.path("run"); }
  std::string persistent() const { return folder_.path("etc"); }
  std::string vendor() const { return folder_.path("lib"); }
  static Value job(const char* label, std::initializer_list<Member> more = {}) {
    Value::Map map = {{"Label", label}, {"Program", "/bin/job"}, {"Transient", true}};
    map.insert(map.end(), more);
    return map;
  }
  static Member services(std::initializer_list<const char*> names) {
    Value::Map map;
    for (const char* name : names) map.push_back({name, true});
    return {"MachServices", Value(map)};
  }
  // Returns the error text, empty on success.
  std::string create(const Value& job) {
    Error error;
    return supervisor_->QZSupervisorCreateService(nullptr, job, &error) ? "" : error.description();
  }
  std::string enable(const String& label, bool enabled = true) {
    Error error;
    return supervisor_->QZSupervisorSetServiceEnabled(nullptr, label, enabled, &error)
               ? ""
               : error.description();
  }
  bool isEnabled(const String& label) {
    error_ = nullptr;
    return supervisor_->QZSupervisorGetServiceEnabled(nullptr, label, &error_);
  }
  std::vector<std::string> takeCalls() { return std::exchange(told_.calls, {}); }
  static std::string content(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void put(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

  const TemporaryFolder folder_;
  FakeManager::Told told_;
  std::unique_ptr<SystemdSupervisor> supervisor_;
  Error error_;
};

TEST_F(SystemdSupervisorTest, AuthorizationIsNeverNull) {
  EXPECT_NE(
      supervisor_->QZSupervisorCreateCommandAuthorizationWithCredentials(nullptr, nullptr, nullptr),
      nullptr);
}

TEST_F(SystemdSupervisorTest, WritesStartsAndThenEnablesANewJob) {
  EXPECT_FALSE(isEnabled("a"));
  EXPECT_FALSE(error_);
  EXPECT_THAT(takeCalls(), IsEmpty());
  EXPECT_EQ(create(job("a", {services({"s1", "s2"})})), "");
  EXPECT_THAT(takeCalls(), ElementsAre("unit path"));
  EXPECT_THAT(content(runtime() + "/a:2.socket"), HasSubstr("ListenStream=/run/keeld/s2\n"));
  EXPECT_EQ(enable("a"), "");
  EXPECT_THAT(takeCalls(),
              ElementsAre("start a.socket", "start a:2.socket", "enable-runtime a.socket"));
  EXPECT_TRUE(isEnabled("a"));
}

TEST_F(SystemdSupervisorTest, UnitsAreWorldReadableAndNoTemporaryFileIsLeft) {
  ASSERT_EQ(create(job("a", {services({"s"})})), "");
  struct stat status{};
  ASSERT_EQ(::stat((runtime() + "/a.service").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0644u);
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator(runtime())) ++count;
  EXPECT_EQ(count, 2u);
}

TEST_F(SystemdSupervisorTest, AnEnabledJobCostsOneCall) {
  ASSERT_EQ(create(job("a", {services({"s1", "s2"})})), "");
  ASSERT_EQ(enable("a"), "");
  restart();
  takeCalls();
  EXPECT_TRUE(isEnabled("a"));
  EXPECT_THAT(takeCalls(), ElementsAre("state a.socket"));
}

TEST_F(SystemdSupervisorTest, WritesANonTransientJobToThePersistentFolder) {
  EXPECT_EQ(create(Value::map({{"Label", "a"}, {"Program", "/p"}, {"RunAtLoad", true}})), "");
  EXPECT_TRUE(std::filesystem::exists(persistent() + "/a.service"));
  takeCalls();
  EXPECT_EQ(enable("a"), "");
  EXPECT_THAT(takeCalls(), ElementsAre("start a.service", "enable a.service"));
}

TEST_F(SystemdSupervisorTest, DoesNotEnableAJobThatFailsToStart) {
  ASSERT_EQ(create(job("a", {services({"s"})})), "");
  told_.failing = "start a.socket";
  EXPECT_THAT(enable("a"), HasSubstr("no start a.socket"));
  EXPECT_FALSE(isEnabled("a"));
}

TEST_F(SystemdSupervisorTest, StopsAJobThatCannotBeEnabled) {
  ASSERT_EQ(create(job("a", {services({"s1", "s2", "s3"})})), "");
  takeCalls();
  told_.failing = "start a:2.socket";
  EXPECT_THAT(enable("a"), HasSubstr("no start a:2.socket"));
  EXPECT_THAT(takeCalls(), ElementsAre("start a.socket", "start a:2.socket", "stop a.socket",
                                       "stop a:2.socket"));
  told_.failing = "enable-runtime a.socket";
  EXPECT_THAT(enable("a"), HasSubstr("no enable-runtime a.socket"));
  EXPECT_THAT(takeCalls(), ElementsAre("start a.socket", "start a:2.socket", "start a:3.socket",
                                       "enable-runtime a.socket", "stop a.socket",
                                       "stop a:2.socket", "stop a:3.socket"));
}

TEST_F(SystemdSupervisorTest, StopsCallingASlowSystemd) {
  const auto manager = std::make_unique<BudgetedSystemManager>(std::make_unique<FakeManager>(told_),
                                                               [&] { return told_.now; });
  told_.delay = std::chrono::seconds(1);
  for (int round = 0; round < BudgetedSystemManager::kBudget.count(); ++round)
    EXPECT_TRUE(manager->unitFileState("a"));
  EXPECT_EQ(takeCalls().size(), static_cast<std::size_t>(BudgetedSystemManager::kBudget.count()));
  for (const auto& refused :
       {manager->reload(), manager->start("a"), manager->stop("a"), manager->enable("a", true)}) {
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code(), ETIMEDOUT);
    EXPECT_THAT(refused.error().description(), HasSubstr("its replies took 120 s in all"));
  }
  EXPECT_FALSE(manager->unitPath());
  EXPECT_THAT(takeCalls(), IsEmpty());
}

// Only time spent in calls counts.
TEST_F(SystemdSupervisorTest, KeepsCallingWithinTheBudget) {
  BudgetedSystemManager manager(std::make_unique<FakeManager>(told_), [&] { return told_.now; });
  for (int round = 0; round < 10; ++round) {
    told_.now += std::chrono::hours(1);
    EXPECT_TRUE(manager.reload());
  }
  EXPECT_EQ(takeCalls().size(), 10u);
}

TEST_F(SystemdSupervisorTest, ReportsErrorsOfSystemd) {
  ASSERT_EQ(create(job("a", {services({"s"})})), "");
  told_.failing = "state a.socket";
  EXPECT_FALSE(isEnabled("a"));
  EXPECT_THAT(error_.description(), HasSubstr("no state a.socket"));
  restart();
  told_.failing = "unit path";
  EXPECT_THAT(create(job("b")), HasSubstr("no unit path"));
  EXPECT_FALSE(std::filesystem::exists(runtime() + "/b.service"));
}

TEST_F(SystemdSupervisorTest, LeavesForeignUnitsAlone) {
  put(runtime() + "/a.service", "[Service]\nExecStart=/bin/true\n");
  EXPECT_THAT(create(job("a")), HasSubstr("/a.service is there already, and not keeld's"));
  EXPECT_EQ(content(runtime() + "/a.service"), "[Service]\nExecStart=/bin/true\n");
  EXPECT_FALSE(isEnabled("a"));
  EXPECT_FALSE(error_);
  EXPECT_THAT(enable("a"), HasSubstr("not keeld's"));
  EXPECT_THAT(enable("a", false), HasSubstr("not keeld's"));

  put(vendor() + "/dbus.service", "[Service]\nExecStart=/bin/true\n");
  EXPECT_THAT(create(job("dbus")), HasSubstr("/dbus.service is there already"));
  EXPECT_FALSE(std::filesystem::exists(runtime() + "/dbus.service"));

  // A masked unit.
  std::filesystem::create_symlink("/dev/null", runtime() + "/m.socket");
  EXPECT_THAT(create(job("m", {services({"s"})})), HasSubstr("/m.socket is there already"));
  EXPECT_FALSE(std::filesystem::exists(runtime() + "/m.service"));
}

TEST_F(SystemdSupervisorTest, ReplacesAUnitThatHasOnlyTheMarker) {
  ASSERT_EQ(create(job("a")), "");
  const std::string former = content(runtime() + "/a.service");
  takeCalls();
  EXPECT_EQ(create(job("a")), "");
  EXPECT_THAT(takeCalls(), IsEmpty());
  EXPECT_EQ(enable("a"), "");
  EXPECT_THAT(takeCalls(), ElementsAre("enable-runtime a.service"));
  EXPECT_EQ(content(runtime() + "/a.service"), former);
}

TEST_F(SystemdSupervisorTest, StopsAChangedJobAndReloadsOnce) {
  ASSERT_EQ(create(job("a", {services({"s1", "s2"})})), "");
  ASSERT_EQ(enable("a"), "");
  takeCalls();
  ASSERT_EQ(create(job("a", {services({"s1"})})), "");
  EXPECT_THAT(takeCalls(), ElementsAre("stop a.socket", "stop a:2.socket", "stop a.service",
                                       "disable-runtime a.socket"));
  EXPECT_FALSE(std::filesystem::exists(runtime() + "/a:2.socket"));
  EXPECT_EQ(enable("a"), "");
  EXPECT_THAT(takeCalls(), ElementsAre("reload", "start a.socket", "enable-runtime a.socket"));
  ASSERT_EQ(create(job("b", {services({"s2"})})), "");
  takeCalls();
  EXPECT_EQ(enable("b"), "");
  EXPECT_THAT(takeCalls(), ElementsAre("start b.socket", "enable-runtime b.socket"));
}

TEST_F(SystemdSupervisorTest, AJobThatBecomesTransientLeavesNoPersistentUnits) {
  ASSERT_EQ(create(Value::map({{"Label", "a"}, {"Program", "/p"}})), "");
  ASSERT_EQ(create(job("a")), "");
  EXPECT_FALSE(std::filesystem::exists(persistent() + "/a.service"));
  EXPECT_TRUE(std::filesystem::exists(runtime() + "/a.service"));
}

TEST_F(SystemdSupervisorTest, RefusesAServiceOfAnotherJob) {
  ASSERT_EQ(create(job("a", {services({"s"})})), "");
  EXPECT_THAT(create(job("b", {services({"s"})})),
              HasSubstr("s is a service of the job a already"));
  restart();
  EXPECT_THAT(create(job("b", {services({"s"})})),
              HasSubstr("s is a service of the job a already"));
  EXPECT_FALSE(std::filesystem::exists(runtime() + "/b.service"));
}

TEST_F(SystemdSupervisorTest, DisablingStopsTheJob) {
  ASSERT_EQ(create(job("a", {services({"s"})})), "");
  ASSERT_EQ(enable("a"), "");
  takeCalls();
  EXPECT_EQ(enable("a", false), "");
  EXPECT_THAT(takeCalls(),
              ElementsAre("disable-runtime a.socket", "stop a.socket", "stop a.service"));
  EXPECT_FALSE(isEnabled("a"));
}

TEST_F(SystemdSupervisorTest, LabelsCannotEscapeTheFolder) {
  EXPECT_EQ(create(job("../../etc/x")), "");
  EXPECT_TRUE(std::filesystem::exists(runtime() + "/:2e.:2f..:2fetc:2fx.service"));
  EXPECT_EQ(enable("../../etc/x"), "");
  EXPECT_TRUE(isEnabled("../../etc/x"));
  EXPECT_THAT(enable(""), HasSubstr("has an empty label"));
  EXPECT_THAT(enable(nullptr), HasSubstr("without a label"));
  EXPECT_FALSE(isEnabled(nullptr));
  EXPECT_TRUE(error_);
  EXPECT_THAT(enable(std::string(1u << 20, '/').c_str()), HasSubstr("1048576 bytes"));
}

TEST_F(SystemdSupervisorTest, RefusesToEnableAMissingJob) {
  EXPECT_THAT(enable("a"), HasSubstr("there is no job with the unit a.service"));
  EXPECT_THAT(takeCalls(), IsEmpty());
}

TEST_F(SystemdSupervisorTest, EnablingARefusedJobReportsWhyItWasRefused) {
  EXPECT_NE(create(Value::map({{"Label", "a"}})), "");
  EXPECT_THAT(enable("a"), HasSubstr("has neither \"Program\""));
  EXPECT_THAT(enable("b"), HasSubstr("there is no job"));
}

TEST_F(SystemdSupervisorTest, ReportsAFolderThatCannotBeWritten) {
  std::filesystem::remove_all(runtime());
  put(runtime(), "a file");
  EXPECT_THAT(create(job("a")), HasSubstr(runtime()));
}

TEST_F(SystemdSupervisorTest, AllowsANullError) {
  EXPECT_FALSE(supervisor_->QZSupervisorCreateService(nullptr, Value(), nullptr));
  EXPECT_FALSE(supervisor_->QZSupervisorSetServiceEnabled(nullptr, nullptr, false, nullptr));
  EXPECT_FALSE(supervisor_->QZSupervisorGetServiceEnabled(nullptr, nullptr, nullptr));
}

}  // namespace
}  // namespace keel
