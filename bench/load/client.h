// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "bench/load/address.h"
#include "bench/load/system.h"

namespace keel::bench {

// One connection of the load: says hello when it is made, then sends what stands in its session and
// counts what comes.
class Client {
 public:
  // `number` is the owner's own name for it. The system outlives the client.
  Client(System& system, const Address& address, Role role, std::size_t number);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int descriptor() const { return socket_.get(); }
  std::size_t number() const { return number_; }
  Session& session() { return session_; }
  const Seen& seen() const { return seen_; }

  // Sends what waits, as far as it goes. True when nothing is left.
  bool flush();
  // Reads once. Throws std::runtime_error when the system ended the connection or refused
  // something.
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
  std::string rest_;  // a frame that has come in part
  Seen seen_;
};

}  // namespace keel::bench
