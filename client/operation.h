// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "client/client_error.h"
#include "client/request.h"
#include "runtime/dispatch/reactor.h"

namespace keel {

class ClientCore;

// A request of a program, from its begin to its result. Lives on the I/O thread once submitted.
class Operation {
 public:
  virtual ~Operation() = default;

  // Describes the request for messages: "publish \"weather\"".
  virtual std::string what() const = 0;
  // Sends the request over the core's connection. The answer goes through ClientCore::settle().
  virtual void send(ClientCore& core) = 0;
  // Calls the program's callback with that error. At most once, and not after a result.
  virtual void fail(ClientError error) = 0;
  // Releases the program's callback. Idempotent.
  virtual void drop() = 0;
  // Returns true for an operation that needs no connection.
  virtual bool isLocal() const { return false; }

  // Kept by ClientCore.
  std::uint64_t id = 0;
  std::size_t bytes = 0;  // size of its data
  std::chrono::milliseconds timeout{};
  Reactor::TimerId timer = 0;
  bool sent = false;
  std::optional<ClientError> refusal;  // of invalid arguments, found before submission
  std::atomic<bool> settled{false};
};

// An operation with a result of type T.
template <class T>
class OperationOf : public Operation, public std::enable_shared_from_this<OperationOf<T>> {
 public:
  void fail(ClientError error) override {
    std::exchange(callback, nullptr)(std::unexpected(std::move(error)));
  }
  void drop() override { callback = nullptr; }
  void finish(ClientResult<T> result) { std::exchange(callback, nullptr)(std::move(result)); }

  ResultCallback<T> callback;
};

}  // namespace keel
