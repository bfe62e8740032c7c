// SPDX-License-Identifier: Apache-2.0
#include "runtime/xpc/reply.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace keel::xpc {
namespace {

TEST(Reply, ALocalBlockReceivesTheResults) {
  std::string seen;
  auto reply = Reply<String, Error>::to(
      [&](String text, Error error) { seen = std::string(text.view()) + (error ? "!" : "."); });
  reply("yes", nullptr);
  EXPECT_EQ(seen, "yes.");
}

struct RecordingRoute : ReplyRoute {
  void sendReply(std::uint64_t requestId, std::size_t resultCount, WriteResults, void*) override {
    events.push_back("reply " + std::to_string(requestId) + " of " + std::to_string(resultCount));
  }
  void sendFailure(std::uint64_t requestId, FailureCode code, std::string_view) override {
    events.push_back("failure " + std::to_string(requestId) + " code " +
                     std::to_string(static_cast<int>(code)));
  }
  std::vector<std::string> events;
};

TEST(Reply, DroppedUnansweredItSendsOneFailure) {
  const auto route = std::make_shared<RecordingRoute>();
  {
    Reply<Error> reply(route, 7);
    Reply<Error> moved = std::move(reply);
  }
  EXPECT_EQ(route->events, std::vector<std::string>{"failure 7 code 6"});
}

TEST(Reply, DroppedAfterTheAnswerItSendsNothing) {
  const auto route = std::make_shared<RecordingRoute>();
  {
    Reply<String, Error>(route, 8)("x", nullptr);
  }
  EXPECT_EQ(route->events, std::vector<std::string>{"reply 8 of 2"});
}

}  // namespace
}  // namespace keel::xpc
