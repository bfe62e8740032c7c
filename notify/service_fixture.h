// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <limits>
#include <memory>
#include <utility>

#include "notify/notify_fixture.h"

namespace keel {

inline constexpr std::uint64_t kAnyFlags = std::numeric_limits<std::uint64_t>::max();
inline constexpr std::int64_t kAnyValue = std::numeric_limits<std::int64_t>::min();

// A registry, and two clients that call it directly.
class NotificationService : public NotifyTest {
 protected:
  explicit NotificationService(LogLevel least = LogLevel::standard) : NotifyTest(least) {}

  std::shared_ptr<KLNPublishedObject> newItem(Name name, int value, const FakeClient& client) {
    return service->newPublishedObjectWith(number(value), std::move(name), 0, 0,
                                           client.connection());
  }
  // Publishes, which must succeed, and returns the entry of that name.
  std::shared_ptr<KLNPublishedObject> mustPublish(Name name, int value, const FakeClient& client) {
    auto item = newItem(std::move(name), value, client);
    EXPECT_TRUE(service->publish(item, nullptr));
    return item;
  }

  FakeClient one{executor, FakeClient::identity(1)};
  FakeClient other{executor, FakeClient::identity(2)};
};

// For tests that check debug lines, or that there are none.
class LoggedNotificationService : public NotificationService {
 protected:
  LoggedNotificationService() : NotificationService(LogLevel::debug) {}
};

}  // namespace keel
