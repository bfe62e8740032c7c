// SPDX-License-Identifier: Apache-2.0
#include "tools/event_command.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

EventCommand shell(const char* script) {
  return EventCommand({"sh", "-c", script});
}

TEST(EventCommand, ReceivesTheDataAndItsEnvironment) {
  const auto command = shell(
      "read line; test \"$line\" = '{\"n\":1}' && test \"$KEELCTL_NAME\" = weather && test "
      "$KEELCTL_EVENT = data");
  EXPECT_EQ(command.run("weather", "data", "{\"n\":1}\n"), 0);
}

TEST(EventCommand, NeedNotReadItsInput) {
  EXPECT_EQ(EventCommand({"true"}).run("weather", "data", std::string(1u << 20, 'x')), 0);
}

TEST(EventCommand, ReturnsTheExitStatus) {
  EXPECT_EQ(shell("exit 7").run("weather", "data", ""), 7);
}

TEST(EventCommand, ReturnsTheSignalThatEndedIt) {
  EXPECT_EQ(shell("kill -9 $$").run("weather", "data", ""), 137);
}

TEST(EventCommand, UnrepresentableNamesAreOmitted) {
  const auto command = shell("test -z \"${KEELCTL_NAME+set}\"");
  EXPECT_EQ(command.run(std::string(EventCommand::kNameBytes + 1, 'x'), "data", ""), 0);
  EXPECT_EQ(command.run(std::string("a\0b", 3), "data", ""), 0);
  EXPECT_EQ(command.run(std::string(EventCommand::kNameBytes, 'x'), "data", ""), 1);
}

TEST(EventCommand, AMissingProgramIsReported) {
  const auto status = EventCommand({"/nonexistent/program"}).run("weather", "data", "");
  ASSERT_FALSE(status.has_value());
  EXPECT_NE(status.error().find("No such file"), std::string::npos);
}

}  // namespace
}  // namespace keel
