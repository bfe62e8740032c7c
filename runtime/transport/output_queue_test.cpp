// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/output_queue.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "runtime/foundation/sealed_memory.h"
#include "runtime/wire/flat_message.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {
namespace {

ChunkPool chunks;

struct SocketPair {
  SocketPair() {
    int both[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both), 0);
    ours.reset(both[0]);
    theirs.reset(both[1]);
  }
  std::string receive() {
    std::string all;
    char buffer[65536];
    for (ssize_t got = ::read(theirs.get(), buffer, sizeof(buffer)); got > 0;
         got = ::read(theirs.get(), buffer, sizeof(buffer))) {
      all.append(buffer, static_cast<std::size_t>(got));
    }
    return all;
  }
  FileDescriptor ours;
  FileDescriptor theirs;
};

BufferRef bufferOf(std::size_t sizeBytes, char fill) {
  return Buffer::make(sizeBytes, [&](std::byte* bytes) {
    std::fill_n(bytes, sizeBytes, static_cast<std::byte>(fill));
  });
}

// Returns a message as it is on the wire, for comparison.
std::string textOf(const OutgoingMessage& message) {
  const std::vector<std::byte> bytes = flat(message);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

OutgoingMessage messageOf(std::size_t smallBytes, std::size_t largeBytes, char fill) {
  OutgoingMessage message;
  cbor::Writer writer = message.begin();
  writer.text(std::string(smallBytes, fill));
  if (largeBytes > 0) message.item(bufferOf(largeBytes, fill));
  message.writer().text("end");
  EXPECT_TRUE(message.finish());
  return message;
}

TEST(OutputQueue, SmallAndLargeFramesArriveInOrder) {
  SocketPair pair;
  OutputQueue queue(chunks);
  std::string expected;
  for (int i = 0; i < 20; ++i) {
    const OutgoingMessage message = messageOf(static_cast<std::size_t>(i) * 37,
                                              i % 3 == 0 ? 5000 : 0, static_cast<char>('a' + i));
    EXPECT_EQ(textOf(message).size(), message.wireBytes());
    expected += textOf(message);
    queue.append(message);
  }
  EXPECT_EQ(queue.waitingBytes(), expected.size());
  ASSERT_TRUE(queue.flush(pair.ours.get()));
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(pair.receive(), expected);
}

TEST(OutputQueue, AFullSocketKeepsTheRestInOrder) {
  SocketPair pair;
  OutputQueue queue(chunks);
  std::string expected;
  std::string received;
  std::mt19937 random(99);
  for (int i = 0; i < 300; ++i) {
    const OutgoingMessage message =
        messageOf(random() % 3000, random() % 4 == 0 ? 4096 + random() % 30000 : 0,
                  static_cast<char>('a' + i % 26));
    expected += textOf(message);
    queue.append(message);
    ASSERT_TRUE(queue.flush(pair.ours.get()));
    EXPECT_EQ(queue.waitingBytes() == 0, queue.empty());
    if (random() % 8 == 0) received += pair.receive();
  }
  while (!queue.empty()) {
    received += pair.receive();
    ASSERT_TRUE(queue.flush(pair.ours.get()));
  }
  received += pair.receive();
  EXPECT_TRUE(received == expected);
}

TEST(OutputQueue, DroppingKeepsTheFrameInFlightWhole) {
  for (const std::size_t largeBytes : {std::size_t{0}, std::size_t{300'000}}) {
    SocketPair pair;
    OutputQueue queue(chunks);
    std::vector<std::string> frames;
    for (int i = 0; i < 400; ++i) {
      const OutgoingMessage message = messageOf(2000, largeBytes, static_cast<char>('a' + i % 26));
      frames.push_back(textOf(message));
      queue.append(message);
      ASSERT_TRUE(queue.flush(pair.ours.get()));
    }
    ASSERT_FALSE(queue.empty());
    queue.dropUnbegunFrames();
    OutgoingMessage last;
    last.begin().text("last");
    last.finish();
    queue.append(last);
    std::string received = pair.receive();
    while (!queue.empty()) {
      ASSERT_TRUE(queue.flush(pair.ours.get()));
      received += pair.receive();
    }
    std::string expected;
    for (std::size_t i = 0; expected.size() + textOf(last).size() < received.size(); ++i)
      expected += frames.at(i);
    EXPECT_TRUE(received == expected + textOf(last));
  }
}

TEST(OutputQueue, DroppingBeforeAnythingWasSentDropsEverything) {
  OutputQueue queue(chunks);
  queue.append(messageOf(10, 5000, 'x'));
  queue.append(messageOf(10, 0, 'y'));
  queue.dropUnbegunFrames();
  EXPECT_TRUE(queue.empty());
}

// The kernel limits the descriptors that an ordinary user has in flight to that user's descriptor
// limit.
int exitCodeOfTooManyFiles() {
  SocketPair pair;
  OutputQueue queue(chunks);
  const BufferRef large = bufferOf(100'000, 'z');
  for (int i = 0; i < 200; ++i) {
    OutgoingMessage message;
    message.begin();
    if (!message.sealedItem(large) || !message.finish()) return 3;
    queue.append(message);
  }
  const rlimit few{64, 64};
  if (::setrlimit(RLIMIT_NOFILE, &few) != 0) return 1;
  if (::getuid() == 0 && ::setuid(65534) != 0) return 2;
  if (!queue.flush(pair.ours.get()) || !queue.isStuck()) return 4;
  char bytes[4096];
  for (int i = 0; i < 1000 && !queue.empty(); ++i) {
    while (::recv(pair.theirs.get(), bytes, sizeof(bytes), MSG_DONTWAIT) > 0) {
    }
    if (!queue.flush(pair.ours.get())) return 5;
  }
  return queue.empty() && !queue.isStuck() ? 0 : 6;
}

TEST(OutputQueue, TooManyFilesInFlightAreATemporaryShortage) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(exitCodeOfTooManyFiles());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(OutputQueue, SealedFilesArriveWithTheirFrames) {
  SocketPair pair;
  OutputQueue queue(chunks);
  queue.append(messageOf(10, 0, 'a'));
  OutgoingMessage message;
  message.begin();
  const BufferRef large = bufferOf(100'000, 'z');
  ASSERT_TRUE(message.sealedItem(large));
  ASSERT_TRUE(message.finish());
  queue.append(message);
  queue.append(messageOf(10, 0, 'b'));
  ASSERT_TRUE(queue.flush(pair.ours.get()));

  char bytes[4096];
  std::size_t filesSeen = 0;
  std::string all;
  for (;;) {
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))];
    iovec vector{bytes, sizeof(bytes)};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    const ssize_t got = ::recvmsg(pair.theirs.get(), &header, MSG_CMSG_CLOEXEC);
    if (got <= 0) break;
    all.append(bytes, static_cast<std::size_t>(got));
    if (cmsghdr* rights = CMSG_FIRSTHDR(&header); rights != nullptr) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(rights), sizeof(int));
      auto opened = openSealedMemory(FileDescriptor(descriptor), 100'000);
      ASSERT_TRUE(opened);
      EXPECT_TRUE(std::ranges::equal((*opened)->bytes(), large->bytes()));
      ++filesSeen;
    }
  }
  EXPECT_EQ(filesSeen, 1u);
  EXPECT_EQ(all, textOf(messageOf(10, 0, 'a')) + textOf(message) + textOf(messageOf(10, 0, 'b')));
}

TEST(OutputQueue, AClosedPeerIsAnError) {
  SocketPair pair;
  pair.theirs.reset();
  OutputQueue queue(chunks);
  queue.append(messageOf(10, 0, 'a'));
  const auto flushed = queue.flush(pair.ours.get());
  ASSERT_FALSE(flushed);
  EXPECT_EQ(flushed.error().value(), EPIPE);
}

OutgoingMessage sharedMessageOf(std::size_t smallBytes, char fill) {
  OutgoingMessage message = messageOf(smallBytes, 0, fill);
  message.share();
  return message;
}

TEST(OutputQueue, SharedFramesArriveInOrderBetweenOthers) {
  SocketPair pairs[2];
  OutputQueue queues[2] = {OutputQueue(chunks), OutputQueue(chunks)};
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    const auto size = static_cast<std::size_t>(i) * 7;
    const char fill = static_cast<char>('a' + i % 26);
    const OutgoingMessage message =
        i % 5 == 0 ? messageOf(size, i % 10 == 0 ? 5000 : 0, fill) : sharedMessageOf(size, fill);
    expected += textOf(message);
    for (OutputQueue& queue : queues) queue.append(message);
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(queues[i].waitingBytes(), expected.size());
    ASSERT_TRUE(queues[i].flush(pairs[i].ours.get()));
    EXPECT_TRUE(queues[i].empty());
    EXPECT_EQ(pairs[i].receive(), expected);
  }
}

TEST(OutputQueue, ASharedMessageIsReferencedUntilItIsSent) {
  SocketPair pair;
  OutputQueue queue(chunks);
  const OutgoingMessage message = sharedMessageOf(4000, 'x');
  ASSERT_EQ(message.splices().size(), 1u);
  const BufferRef& shared = message.splices().front().buffer;
  ASSERT_FALSE(shared->isShared());
  queue.append(message);
  EXPECT_LT(queue.ownBytes(), 1000u);
  EXPECT_TRUE(shared->isShared());
  ASSERT_TRUE(queue.flush(pair.ours.get()));
  EXPECT_FALSE(shared->isShared());
}

TEST(OutputQueue, SmallSharedMessagesAreCopiedOnceSeveralWait) {
  SocketPair pair;
  OutputQueue queue(chunks);
  const OutgoingMessage message = sharedMessageOf(100, 'x');
  for (int i = 0; i < 4; ++i) queue.append(message);
  EXPECT_LT(queue.ownBytes(), 1000u);
  queue.append(message);
  EXPECT_GT(queue.ownBytes(), 2000u);
  ASSERT_TRUE(queue.flush(pair.ours.get()));
  std::string expected;
  for (int i = 0; i < 5; ++i) expected += textOf(message);
  EXPECT_EQ(pair.receive(), expected);
}

TEST(OutputQueue, UnbegunSharedFramesCanBeDropped) {
  SocketPair pair;
  OutputQueue queue(chunks);
  const OutgoingMessage message = sharedMessageOf(4000, 'x');
  for (int i = 0; i < 200; ++i) queue.append(message);
  ASSERT_TRUE(queue.flush(pair.ours.get()));
  ASSERT_FALSE(queue.empty());
  queue.dropUnbegunFrames();
  std::string received = pair.receive();
  while (!queue.empty()) {
    ASSERT_TRUE(queue.flush(pair.ours.get()));
    received += pair.receive();
  }
  EXPECT_EQ(received.size() % message.wireBytes(), 0u);
}

// Returns a batch of frames of 1,000 bytes.
OutgoingMessage batchOf(std::size_t frameCount, char fill) {
  OutgoingMessage message;
  for (std::size_t i = 0; i < frameCount; ++i) {
    cbor::Writer writer = i == 0 ? message.begin() : message.beginNext();
    writer.text(std::string(1000 - kLengthBytes - 3, fill));
    EXPECT_TRUE(message.finish());
  }
  return message;
}

TEST(OutputQueue, ABatchIsSharedAsAWhole) {
  OutgoingMessage message = batchOf(32, 'x');
  message.share();
  ASSERT_EQ(message.splices().size(), 1u);
  SocketPair pair;
  OutputQueue queue(chunks);
  queue.append(message);
  EXPECT_LT(queue.ownBytes(), 1000u);
  ASSERT_TRUE(queue.flush(pair.ours.get()));
  EXPECT_EQ(pair.receive(), textOf(message));
}

TEST(OutputQueue, DroppingNeverSplitsAFrameOfABatch) {
  for (const bool shared : {false, true}) {
    SocketPair pair;
    OutputQueue queue(chunks);
    OutgoingMessage message = batchOf(30, 'x');
    if (shared) message.share();
    for (int i = 0; i < 40; ++i) queue.append(message);
    ASSERT_TRUE(queue.flush(pair.ours.get()));
    ASSERT_FALSE(queue.empty());
    queue.dropUnbegunFrames();
    OutgoingMessage goodbye;
    goodbye.begin().text("goodbye");
    ASSERT_TRUE(goodbye.finish());
    queue.append(goodbye);
    std::string received = pair.receive();
    while (!queue.empty()) {
      ASSERT_TRUE(queue.flush(pair.ours.get()));
      received += pair.receive();
    }
    const std::string last = textOf(goodbye);
    ASSERT_TRUE(received.ends_with(last));
    EXPECT_EQ((received.size() - last.size()) % 1000, 0u);
    EXPECT_LT(received.size(), 40 * message.wireBytes());
  }
}

TEST(OutputQueuePool, RecyclesAReturnedQueue) {
  OutputQueuePool pool;
  auto first = pool.take();
  OutputQueue* const address = first.get();
  first->append(messageOf(10, 0, 'a'));
  SocketPair pair;
  ASSERT_TRUE(first->flush(pair.ours.get()));
  pool.giveBack(std::move(first));
  const auto second = pool.take();
  EXPECT_EQ(second.get(), address);
  EXPECT_TRUE(second->empty());
  second->append(messageOf(10, 0, 'b'));
  ASSERT_TRUE(second->flush(pair.ours.get()));
  EXPECT_EQ(pair.receive(), textOf(messageOf(10, 0, 'a')) + textOf(messageOf(10, 0, 'b')));
}

}  // namespace
}  // namespace keel::xpc
