// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/manual_executor.h"

#include <utility>

#include "runtime/dispatch/serial_queue.h"

namespace keel {

ManualExecutor::~ManualExecutor() {
  while (!scheduled_.empty()) takeFirst()->abandon();
}

bool ManualExecutor::runOne() {
  if (scheduled_.empty()) return false;
  takeFirst()->runBatch();
  return true;
}

void ManualExecutor::runAll() {
  while (runOne()) {
  }
}

std::shared_ptr<SerialQueue> ManualExecutor::takeFirst() {
  auto first = std::move(scheduled_.front());
  scheduled_.pop_front();
  return first;
}

}  // namespace keel
