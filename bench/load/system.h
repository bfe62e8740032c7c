// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/load/session.h"

namespace keel::bench {

// What one read brought. Counts, since nothing else matters to a load generator.
struct Seen {
  std::uint64_t acknowledged = 0;  // publishes, or requests of other kinds
  std::uint64_t delivered = 0;
  std::uint64_t confirmed = 0;  // subscriptions
};

// A name to publish under. A system keeps here what it has encoded of a publish, so that each
// further one is a copy.
struct Topic {
  std::string name;
  std::string frame;
  bool published = false;
};

// Speaks one system's raw protocol, as its best clients do: everything is pipelined, nothing is
// decoded that need not be. All connections of one run share it; what differs between them is in
// their Session.
class System {
 public:
  // Payloads are the same bytes for every system.
  explicit System(std::string payload) : payload_(std::move(payload)) {}
  virtual ~System() = default;
  System(const System&) = delete;
  System& operator=(const System&) = delete;

  // False where a publish is not answered in any way: then its delivery alone counts.
  virtual bool acknowledges() const { return true; }
  // False where nothing tells when a subscription is in force.
  virtual bool confirms() const { return true; }
  // True where large values travel as files beside the bytes.
  virtual bool passesFiles() const { return false; }

  // What a connection says first; its answers are not awaited.
  virtual void greet(Session& session) = 0;
  virtual void subscribe(Session& session, const Topic& topic) = 0;
  virtual void publish(Session& session, Topic& topic) = 0;
  // After the last of `count` publishes that are sent together, for systems that acknowledge them
  // together.
  virtual void endBatch(Session&, std::size_t /*count*/) {}
  // Asks for a description of everything. Only where there is such a thing.
  virtual void dump(Session&) {}

  // Counts the frames at the beginning of `bytes`; how many bytes they are. What is left is offered
  // again, with more behind it. Throws std::runtime_error when the system refused something.
  virtual std::size_t consume(Session& session, std::string_view bytes, Seen& seen) = 0;

 protected:
  const std::string& payload() const { return payload_; }

 private:
  const std::string payload_;
};

// keeld, relay, redis, nats, mosquitto, zeromq or dbus; throws std::runtime_error for any other
// name.
std::unique_ptr<System> systemOfName(std::string_view name, std::size_t payloadBytes);

}  // namespace keel::bench
