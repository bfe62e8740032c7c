// SPDX-License-Identifier: Apache-2.0
#include "bench/load/crowd.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace keel::bench {

namespace {

constexpr std::size_t kEventsPerTurn = 256;
constexpr std::chrono::seconds kPatience{30};

void check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Crowd::Crowd(System& system, Address publishers, Address subscribers)
    : system_(system),
      publishers_(std::move(publishers)),
      subscribers_(std::move(subscribers)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      events_(kEventsPerTurn) {
  check(epoll_.get(), "epoll_create1");
}

Client& Crowd::add(Role role) {
  const Address& address = role == Role::publisher ? publishers_ : subscribers_;
  clients_.push_back(std::make_unique<Client>(system_, address, role, clients_.size()));
  wantsToWrite_.push_back(false);
  Client& client = *clients_.back();
  epoll_event event{EPOLLIN, {.ptr = &client}};
  check(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, client.descriptor(), &event), "epoll_ctl");
  return client;
}

void Crowd::flush(Client& client) {
  const bool wants = !client.flush();
  if (wants == wantsToWrite_[client.number()]) return;
  wantsToWrite_[client.number()] = wants;
  epoll_event event{wants ? EPOLLIN | EPOLLOUT : EPOLLIN, {.ptr = &client}};
  check(epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, client.descriptor(), &event), "epoll_ctl");
}

std::span<const epoll_event> Crowd::wait(std::optional<Clock::time_point> until) {
  timespec timeout{};
  if (until) {
    const auto left =
        std::chrono::nanoseconds(std::max(*until - Clock::now(), Clock::duration::zero())).count();
    timeout.tv_sec = left / 1'000'000'000;
    timeout.tv_nsec = left % 1'000'000'000;
  }
  const int count = epoll_pwait2(epoll_.get(), events_.data(), static_cast<int>(events_.size()),
                                 until ? &timeout : nullptr,
                                 /*sigmask=*/nullptr);
  check(count < 0 && errno == EINTR ? 0 : count, "epoll_wait");
  return std::span(events_).first(static_cast<std::size_t>(std::max(count, 0)));
}

void Crowd::until(const std::function<bool()>& isSo, const char* what) {
  const auto deadline = Clock::now() + kPatience;
  while (!isSo()) {
    if (Clock::now() > deadline) throw std::runtime_error(fmt::format("waited in vain: {}", what));
    turn(deadline, [](const Client&) {});
  }
}

}  // namespace keel::bench
