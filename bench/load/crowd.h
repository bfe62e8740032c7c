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

// All clients of a load, on one epoll and one thread: with the system on one processor, the load
// has the other.
class Crowd {
 public:
  // Some systems hear publishers and subscribers at different addresses.
  Crowd(System& system, Address publishers, Address subscribers);

  System& system() { return system_; }
  Client& add(Role role);
  const std::vector<std::unique_ptr<Client>>& clients() const { return clients_; }
  // Ends that client's connection.
  void remove(const Client& client) { clients_[client.number()].reset(); }

  // Sends what stands in the client's session; what does not go at once goes with the next turns.
  void flush(Client& client);
  // Waits until something comes, or until then, and reads once from each client that has something.
  // `heard` is called for each.
  template <class Heard>
  void turn(std::optional<Clock::time_point> until, Heard heard) {
    for (const epoll_event& event : wait(until)) {
      Client& client = *static_cast<Client*>(event.data.ptr);
      if ((event.events & EPOLLOUT) != 0) flush(client);
      if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0) continue;
      client.receive();
      // Now and then a system asks whether somebody is there. A publisher's answer goes with its
      // next publishes.
      if (client.session().role == Role::subscriber && !client.session().out.empty()) flush(client);
      heard(client);
    }
  }
  // Turns until that is so. Throws std::runtime_error when it does not come about in half a minute.
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
