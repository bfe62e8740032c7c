// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/system.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <future>
#include <string>

#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/dispatch/worker_pool.h"

namespace keel {
namespace {

std::string currentThreadName() {
  std::array<char, 16> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

TEST(IoReactor, IsASingletonOnAThreadOfItsOwn) {
  EXPECT_EQ(&ioReactor(), &ioReactor());
  std::promise<std::string> name;
  ioReactor().post([&name] { name.set_value(currentThreadName()); });
  EXPECT_EQ(name.get_future().get(), "keel-io");
}

TEST(GlobalQueue, IsASingletonThatRunsOnWorkers) {
  EXPECT_EQ(&globalQueue(), &globalQueue());
  std::promise<std::string> name;
  SerialQueue::create("test", globalQueue())->async([&name] {
    name.set_value(currentThreadName());
  });
  EXPECT_EQ(name.get_future().get(), "keel-worker");
}

}  // namespace
}  // namespace keel
