// SPDX-License-Identifier: Apache-2.0
#include "platform/product/crash_annotation.h"

#include <atomic>
#include <cstdio>

namespace keel {
namespace {

constexpr std::uint64_t kRecordVersion = 5;

constinit char messageBuffer[kCrashMessageBytes] = {};

// Attributes keep it although our code never reads it.
[[gnu::used, gnu::retain, gnu::section("keel_crash_info")]]
constinit CrashAnnotation record{kRecordVersion, nullptr};

}  // namespace

const CrashAnnotation& crashAnnotation() {
  return record;
}

void setCrashBanner(const char* version) {
  record.message = messageBuffer;
  // A crash while the buffer is filled must find the pointer set.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  std::snprintf(messageBuffer, sizeof messageBuffer, "* Calder Version %s *", version);
}

}  // namespace keel
