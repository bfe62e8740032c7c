// SPDX-License-Identifier: Apache-2.0
#include "tools/mailbox.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <thread>

namespace keel {
namespace {

bool isReadable(int descriptor) {
  pollfd watched{descriptor, POLLIN, 0};
  return ::poll(&watched, 1, 0) == 1;
}

TEST(Mailbox, ReturnsMessagesInOrderAndIsReadableMeanwhile) {
  Mailbox<int> mailbox;
  EXPECT_FALSE(isReadable(mailbox.descriptor()));
  mailbox.push(1);
  mailbox.push(2);
  EXPECT_TRUE(isReadable(mailbox.descriptor()));
  EXPECT_EQ(mailbox.take(), 1);
  EXPECT_TRUE(isReadable(mailbox.descriptor()));
  EXPECT_EQ(mailbox.take(), 2);
  EXPECT_FALSE(isReadable(mailbox.descriptor()));
  EXPECT_EQ(mailbox.take(), std::nullopt);
}

TEST(Mailbox, AFullMailboxBlocksTheSenderAndLosesNothing) {
  Mailbox<int> mailbox;
  constexpr int kCount = 3 * static_cast<int>(Mailbox<int>::kMessages);
  std::thread sender([&] {
    for (int i = 0; i < kCount; ++i) mailbox.push(i);
  });
  for (int i = 0; i < kCount;) {
    pollfd watched{mailbox.descriptor(), POLLIN, 0};
    ::poll(&watched, 1, -1);
    while (const auto message = mailbox.take()) EXPECT_EQ(*message, i++);
  }
  sender.join();
}

TEST(Mailbox, AMessageOverTheLimitIsAcceptedWhenEmpty) {
  Mailbox<int> mailbox;
  mailbox.push(1, Mailbox<int>::kBytes + 1);
  EXPECT_EQ(mailbox.take(), 1);
}

TEST(Mailbox, CloseUnblocksTheSender) {
  Mailbox<int> mailbox;
  mailbox.push(0, Mailbox<int>::kBytes);
  std::thread sender([&] { mailbox.push(1, 1); });
  mailbox.close();
  sender.join();
  EXPECT_EQ(mailbox.take(), 0);
  EXPECT_EQ(mailbox.take(), std::nullopt);
}

}  // namespace
}  // namespace keel
