// SPDX-License-Identifier: Apache-2.0
#include "tools/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "runtime/foundation/file_descriptor.h"

namespace keel {
namespace {

TEST(ConsoleWrite, ReportsADeviceThatIsFull) {
  const FileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  Console console(-1, full.get(), -1);
  EXPECT_FALSE(console.write("text"));
  EXPECT_EQ(console.outputError(), ENOSPC);
  EXPECT_FALSE(console.write("text"));
}

TEST(ConsoleWrite, ReportsAnOutputThatWasClosed) {
  Console console(-1, -1, -1);
  EXPECT_EQ(console.outputError(), 0);
  EXPECT_FALSE(console.write("text"));
  EXPECT_EQ(console.outputError(), EBADF);
}

TEST(ConsoleWrite, AReaderThatIsGoneIsNoError) {
  ::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor writing(ends[1]);
  ::close(ends[0]);
  Console console(-1, writing.get(), -1);
  EXPECT_FALSE(console.write("text"));
  EXPECT_EQ(console.outputError(), 0);
}

TEST(ConsoleWrite, WaitsForRoomInANonBlockingOutput) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const FileDescriptor reading(ends[0]);
  FileDescriptor writing(ends[1]);
  const std::string text(1u << 20, 'x');
  std::size_t read = 0;
  std::jthread reader([&] {
    std::string piece(1u << 16, '\0');
    ::fcntl(reading.get(), F_SETFL, 0);
    for (ssize_t bytes = 1; bytes > 0; read += static_cast<std::size_t>(bytes)) {
      bytes = ::read(reading.get(), piece.data(), piece.size());
    }
  });
  Console console(-1, writing.get(), -1);
  EXPECT_TRUE(console.write(text));
  EXPECT_EQ(console.outputError(), 0);
  writing.reset();
  reader.join();
  EXPECT_EQ(read, text.size());
}

}  // namespace
}  // namespace keel
