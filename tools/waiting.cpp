// SPDX-License-Identifier: Apache-2.0
#include "tools/waiting.h"

#include <poll.h>

#include <algorithm>
#include <climits>

namespace keel {

Waiting::Waiting(int message, int output, std::optional<std::chrono::milliseconds> timeout)
    : message_(message), output_(output) {
  if (timeout) end_ = Clock::now() + *timeout;
}

std::optional<std::chrono::milliseconds> Waiting::left() const {
  if (!end_) return std::nullopt;
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(*end_ - Clock::now()),
                  std::chrono::milliseconds(0));
}

Waiting::Reason Waiting::next(int input) const {
  for (;;) {
    // poll(2) reports POLLERR on a pipe without a reader even if no event is requested.
    pollfd watched[] = {{message_, POLLIN, 0}, {input, POLLIN, 0}, {output_, 0, 0}};
    int timeout = -1;
    if (end_) {
      timeout = static_cast<int>(std::min<std::int64_t>(left()->count(), INT_MAX));
    }
    ::poll(watched, 3, timeout);
    if ((watched[0].revents & POLLIN) != 0) return Reason::message;
    if ((watched[2].revents & (POLLERR | POLLNVAL)) != 0) return Reason::outputGone;
    if (watched[1].revents != 0) return Reason::input;
    if (end_ && Clock::now() >= *end_) return Reason::timeIsUp;
  }
}

}  // namespace keel
