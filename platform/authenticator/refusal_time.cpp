// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/refusal_time.h"

#include <thread>
#include <utility>

namespace keel {

RefusalTime::RefusalTime(std::chrono::milliseconds step)
    : RefusalTime(
          step, [] { return Clock::now(); },
          [](Clock::time_point time) { std::this_thread::sleep_until(time); }) {}

RefusalTime::RefusalTime(std::chrono::milliseconds step, std::function<Clock::time_point()> now,
                         std::function<void(Clock::time_point)> waitUntil)
    : step_(step), now_(std::move(now)), waitUntil_(std::move(waitUntil)) {}

void RefusalTime::await(Clock::time_point start) const {
  waitUntil_(start + ((now_() - start) / step_ + 1) * step_);
}

}  // namespace keel
