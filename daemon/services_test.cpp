// SPDX-License-Identifier: Apache-2.0
#include "daemon/services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/log_recorder.h"

namespace keel {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> calls;

class NotingListener {
 public:
  explicit NotingListener(std::string_view serviceName)
      : name_(serviceName == kAuthServiceName ? "auth" : "notify") {
    note("make");
  }
  ~NotingListener() { note("drop"); }
  NotingListener(const NotingListener&) = delete;
  NotingListener& operator=(const NotingListener&) = delete;

  void setDelegate(std::shared_ptr<xpc::ListenerDelegate> delegate) {
    const bool isAuths = std::dynamic_pointer_cast<AuthListenerDelgate>(delegate) != nullptr;
    EXPECT_EQ(isAuths, name_ == "auth");
    note("set delegate");
  }
  void resume() { note("resume"); }
  void suspend() { note("suspend"); }
  void invalidate() { note("invalidate"); }

 private:
  void note(const char* what) { calls.push_back(std::string(what) + " " + name_); }
  const std::string name_;
};

TEST(Services, OpensAndClosesAuthBeforeNotify) {
  testing::LogRecorder log{LogLevel::debug};
  Services<NotingListener> services;
  calls.clear();
  services.open(
      [](const char* serviceName) { return std::make_shared<NotingListener>(serviceName); });
  EXPECT_THAT(calls, ElementsAre("make auth", "set delegate auth", "resume auth", "make notify",
                                 "set delegate notify", "resume notify"));
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0].text, "Auth listener created");
  EXPECT_EQ(log.lines()[1].text, "Notify listener created");

  calls.clear();
  services.close();
  EXPECT_THAT(calls, ElementsAre("suspend auth", "suspend notify", "invalidate auth",
                                 "invalidate notify", "drop auth", "drop notify"));
}

}  // namespace
}  // namespace keel
