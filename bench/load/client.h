// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "bench/load/address.h"
#include "bench/load/system.h"

namespace keel::bench {

// A connection of the load: sends its system's greeting on creation, then the contents of its
// session, and counts what it receives.
class Client {
 public:
  // `number` identifies it to its owner. The system outlives the client.
  Client(System& system, const Address& address, Role role, std::size_t number);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int descriptor() const { return socket_.get(); }
  std::size_t number() const { return number_; }
  Session& session() { return session_; }
  const Seen& seen() const { return seen_; }

  // Sends pending bytes until the socket is full. Returns true if none are left.
  bool flush();
  // Reads once. Throws std::runtime_error if the system ended the connection or refused a request.
  void receive();

 private:
  std::size_t read(char* place, std::size_t size) const;
  std::size_t write() const;
  void forgetSent();

  System& system_;
  const FileDescriptor socket_;
  const std::size_t number_;
  Session session_;
  std::size_t sentBytes_ = 0;
  std::string rest_;  // an incomplete frame
  Seen seen_;
};

}  // namespace keel::bench
