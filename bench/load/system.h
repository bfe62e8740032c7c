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

// The result of a read. Only counts matter to a load generator.
struct Seen {
  std::uint64_t acknowledged = 0;  // publishes, or requests of other kinds
  std::uint64_t delivered = 0;
  std::uint64_t confirmed = 0;  // subscriptions
};

// A name to publish under. A system caches an encoded publish here, so that later ones are copies.
struct Topic {
  std::string name;
  std::string frame;
  bool published = false;
};

// Speaks one system's raw protocol like its best clients: everything is pipelined, and nothing is
// decoded needlessly. Shared by all connections of a run; their own state is in Session.
class System {
 public:
  // Payloads are the same bytes for every system.
  explicit System(std::string payload) : payload_(std::move(payload)) {}
  virtual ~System() = default;
  System(const System&) = delete;
  System& operator=(const System&) = delete;

  // Returns false if publishes are not acknowledged: then only deliveries count.
  virtual bool acknowledges() const { return true; }
  // Returns false if subscriptions are not confirmed.
  virtual bool confirms() const { return true; }
  // Returns true if large values are sent as files.
  virtual bool passesFiles() const { return false; }

  // Appends the greeting; its answers are not awaited.
  virtual void greet(Session& session) = 0;
  virtual void subscribe(Session& session, const Topic& topic) = 0;
  virtual void publish(Session& session, Topic& topic) = 0;
  // Called after the last publish of a batch of `count`, for systems that acknowledge batches.
  virtual void endBatch(Session&, std::size_t /*count*/) {}
  // Requests a dump of everything, for systems that have one.
  virtual void dump(Session&) {}

  // Counts the complete frames at the beginning of `bytes` and returns their size. The rest is
  // passed again with more behind it. Throws std::runtime_error if the system refused a request.
  virtual std::size_t consume(Session& session, std::string_view bytes, Seen& seen) = 0;

 protected:
  const std::string& payload() const { return payload_; }

 private:
  const std::string payload_;
};

// Creates keeld, relay, redis, nats, mosquitto, zeromq or dbus; throws std::runtime_error for any
// other name.
std::unique_ptr<System> systemOfName(std::string_view name, std::size_t payloadBytes);

}  // namespace keel::bench
