// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "notify/notify_fixture.h"

namespace keel {

inline const Error kDuplicate(KLNErrorDomain, 9);
inline const Error kNotOwner(KLNErrorDomain, 10);
inline const Error kNotFound(KLNErrorDomain, 11);
inline const Error kNilName(KLNErrorDomain, 12);
inline const Error kRequestFailed(KLNErrorDomain, 13);

inline std::string shortForm(const Received& received) {
  switch (received.kind) {
    case Received::Kind::update:
      return "update " + std::string(received.name.view()) + " " +
             received.item.value().description() +
             (received.error ? " error " + std::to_string(received.error.code()) : "");
    case Received::Kind::reply:
      return "reply " + std::to_string(received.requestId);
    case Received::Kind::failure:
      return "failure " + std::to_string(received.requestId);
    case Received::Kind::goodbye:
      return "goodbye " + received.text;
  }
  return "?";
}

// Two clients of the notify service.
class NotificationHandler : public NotifyTest {
 protected:
  explicit NotificationHandler(LogLevel least = LogLevel::standard) : NotifyTest(least) {}

  static Error publishError(const NotifyClient& client, std::uint64_t id) {
    const auto results = client.resultsOf<&NotifyProxy::publishItem>(id);
    EXPECT_TRUE(results) << "request " << id << " is not answered";
    return results ? std::get<0>(*results) : Error("no answer", 0);
  }
  // The dictionary slot of the reply is always null.
  static Error subscribeError(const NotifyClient& client, std::uint64_t id) {
    const auto results = client.resultsOf<&NotifyProxy::subscribeTo>(id);
    EXPECT_TRUE(results) << "request " << id << " is not answered";
    if (!results) return Error("no answer", 0);
    EXPECT_TRUE(std::get<0>(*results).isNull());
    return std::get<1>(*results);
  }
  static std::vector<std::string> receivedBy(const NotifyClient& client) {
    std::vector<std::string> all;
    for (const Received& each : client.received()) all.push_back(shortForm(each));
    return all;
  }
  // Runs a request that must succeed, then clears what was recorded.
  void mustPublish(NotifyClient& client, Name name, int value) {
    const auto id = publish(client, std::move(name), number(value));
    executor.runAll();
    EXPECT_FALSE(publishError(client, id));
    clearRecords();
  }
  void mustSubscribe(NotifyClient& client, Name name) {
    const auto id = subscribe(client, std::move(name));
    executor.runAll();
    EXPECT_FALSE(subscribeError(client, id));
    clearRecords();
  }
  void clearRecords() {
    one.take();
    other.take();
    log.take();
  }

  NotifyClient one{executor, FakeClient::identity(11, 3)};
  NotifyClient other{executor, FakeClient::identity(12, 4)};
};

// For tests that check debug lines, or that there are none.
class LoggedNotificationHandler : public NotificationHandler {
 protected:
  LoggedNotificationHandler() : NotificationHandler(LogLevel::debug) {}
};

}  // namespace keel
