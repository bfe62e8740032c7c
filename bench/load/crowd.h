// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "bench/load/client.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel::bench {

using Clock = std::chrono::steady_clock;

// All clients of a load, on one epoll instance and one thread: the system runs on one processor,
// the load on the other.
class Crowd {
 public:
  // Some systems have different addresses for publishers and subscribers.
  Crowd(System& system, Address publishers, Address subscribers);

  System& system() { return system_; }
  Client& add(Role role);
  const std::vector<std::unique_ptr<Client>>& clients() const { return clients_; }
  // Ends that client's connection.
  void remove(const Client& client) { clients_[client.number()].reset(); }

  // Sends the contents of the client's session; what the socket does not take follows in later
  // turns.
  void flush(Client& client);
  // Waits for input until the deadline, reads once from each client that has some, and calls
  // `heard` for each.
  template <class Heard>
  void turn(std::optional<Clock::time_point> until, Heard heard) {
    for (const epoll_event& event : wait(until)) {
      Client& client = *static_cast<Client*>(event.data.ptr);
      if ((event.events & EPOLLOUT) != 0) flush(client);
      if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0) continue;
      client.receive();
      // Some systems send pings. A publisher's answer is sent with its next publishes.
      if (client.session().role == Role::subscriber && !client.session().out.empty()) flush(client);
      heard(client);
    }
  }
  // Turns until the condition holds. Throws std::runtime_error after half a minute.
  void until(const std::function<bool()>& isSo, const char* what);

 private:
  std::span<const epoll_event> wait(std::optional<Clock::time_point> until);

  System& system_;
  const Address publishers_;
  const Address subscribers_;
  FileDescriptor epoll_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<epoll_event> events_;
  std::vector<bool> wantsToWrite_;  // by the client's number
};

}  // namespace keel::bench
