// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "notify/notification_service.h"
#include "notify/publish_behavior.h"
#include "notify/subscriber_behavior.h"
#include "platform/product/product.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/foundation/value.h"
#include "tests/support/log_recorder.h"
#include "tests/support/notify_client.h"

namespace keel {

using protocols::NotifyProxy;
using ::testing::ElementsAre;
using testing::FakeClient;
using ::testing::IsEmpty;
using testing::LogLine;
using testing::LogRecorder;
using testing::NotifyClient;
using testing::Received;

inline LogLine debugLine(std::string text) {
  return {LogLevel::debug, "notification", std::move(text)};
}
inline LogLine standardLine(std::string text) {
  return {LogLevel::standard, "notification", std::move(text)};
}
inline LogLine errorLine(std::string text) {
  return {LogLevel::error, "notification", std::move(text)};
}

inline Dictionary number(int value) {
  return Dictionary(Value::map({{"number", value}}));
}

// Returns once the clock shows another time than `date`, after less than a microsecond.
inline void waitForClockAfter(Date date) {
  while (Date::now() == date) {
  }
}

inline std::string addressOf(const void* object) {
  return fmt::format("{}", fmt::ptr(object));
}

// A registry whose factories a test can replace.
class ScriptedService final : public KLNNotificationService {
 public:
  using KLNNotificationService::KLNNotificationService;

  std::function<std::shared_ptr<KLNPublishedObject>()> makeItem;
  std::function<std::shared_ptr<KLNPublishBehavior>(std::uint64_t, std::int64_t)>
      makePublishBehavior;
  std::function<std::shared_ptr<KLNSubscriptionObject>()> makeSubscription;
  std::function<std::shared_ptr<SubscriberBehavior>(std::uint64_t, std::int64_t)>
      makeSubscriberBehavior;

  std::shared_ptr<KLNPublishedObject> newPublishedObjectWith(
      Dictionary data, Name name, std::uint64_t flags, std::int64_t value,
      const std::shared_ptr<xpc::Connection>& connection) override {
    return makeItem ? makeItem()
                    : KLNNotificationService::newPublishedObjectWith(data, name, flags, value,
                                                                     connection);
  }
  std::shared_ptr<KLNPublishBehavior> newPublishBehaviorFromFlags(std::uint64_t flags,
                                                                  std::int64_t value) override {
    return makePublishBehavior ? makePublishBehavior(flags, value)
                               : KLNNotificationService::newPublishBehaviorFromFlags(flags, value);
  }
  std::shared_ptr<KLNSubscriptionObject> newSubscriptionObjectForName(
      Name name, std::uint64_t flags, std::int64_t value,
      const std::shared_ptr<xpc::Connection>& connection) override {
    return makeSubscription ? makeSubscription()
                            : KLNNotificationService::newSubscriptionObjectForName(
                                  name, flags, value, connection);
  }
  std::shared_ptr<SubscriberBehavior> newSubscriberBehaviorFromFlags(std::uint64_t flags,
                                                                     std::int64_t value) override {
    return makeSubscriberBehavior
               ? makeSubscriberBehavior(flags, value)
               : KLNNotificationService::newSubscriberBehaviorFromFlags(flags, value);
  }
};

// Records the calls to a subscription's behaviour.
class RecordingSubscriberBehavior final : public protocols::SubscriberBehavior {
 public:
  void updateWithData(const Dictionary& given) override { data.push_back(given); }
  void updateWithError(Error given) override { errors.push_back(std::move(given)); }
  void connectionIsInvalid() override { ++invalidCount; }

  std::vector<Dictionary> data;
  std::vector<Error> errors;
  int invalidCount = 0;
};

// A subscription that records its updates instead of sending them.
struct RecordingSubscription {
  explicit RecordingSubscription(Name name,
                                 const std::shared_ptr<xpc::Connection>& connection = nullptr)
      : subscription(KLNSubscriptionObject::initWithName(std::move(name), connection)) {
    subscription->setDelegate(behavior);
  }
  std::shared_ptr<RecordingSubscriberBehavior> behavior =
      std::make_shared<RecordingSubscriberBehavior>();
  std::shared_ptr<KLNSubscriptionObject> subscription;
};

// Gives each test a default registry of its own, on a manual executor. Logs at the daemon's default
// level, so updates form batches; a fixture whose tests check debug lines passes LogLevel::debug.
class NotifyTest : public ::testing::Test {
 protected:
  explicit NotifyTest(LogLevel least = LogLevel::standard) : log(least) {}

  ManualExecutor executor;
  std::shared_ptr<ScriptedService> service = std::make_shared<ScriptedService>(executor);
  KLNNotificationService::Override defaultService{service};
  LogRecorder log;

  // Recorded lines of the category notification.
  std::vector<LogLine> lines() const { return log.linesOf("notification"); }

  // Returns the entry of that name; null if there is none.
  std::shared_ptr<KLNPublishedObject> entry(const Name& name) const {
    const auto found = service->published().find(name);
    return found == service->published().end() ? nullptr : found->second;
  }

  // Send a request of `client` and return its id.
  static std::uint64_t publish(NotifyClient& client, Name name, Dictionary item,
                               std::uint64_t flags = 0, std::int64_t value = 0) {
    return client.request<&NotifyProxy::publishItem>(std::move(item), std::move(name), flags,
                                                     value);
  }
  static std::uint64_t update(NotifyClient& client, Name name, Dictionary item) {
    return client.request<&NotifyProxy::updatePublishedItem>(std::move(item), std::move(name));
  }
  static std::uint64_t remove(NotifyClient& client, Name name) {
    return client.request<&NotifyProxy::removePublishedItemForName>(std::move(name));
  }
  static std::uint64_t subscribe(NotifyClient& client, Name name, std::uint64_t flags = 0) {
    return client.request<&NotifyProxy::subscribeTo>(std::move(name), flags);
  }
  static void unsubscribe(NotifyClient& client, Name name) {
    client.tell<&NotifyProxy::unsubscribeFrom>(std::move(name));
  }
};

}  // namespace keel
