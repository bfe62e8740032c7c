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

// One request of a program, from its beginning to its result. Belongs to the I/O thread once it was
// submitted.
class Operation {
 public:
  virtual ~Operation() = default;

  // What is asked for, in words for messages: "publish \"weather\"".
  virtual std::string what() const = 0;
  // Asks the daemon; there is a connection. The answer goes through ClientCore::settle().
  virtual void send(ClientCore& core) = 0;
  // Calls the program's callback with that error. Once, and not when there is a result.
  virtual void fail(ClientError error) = 0;
  // Lets go of the program's callback, if it is there still.
  virtual void drop() = 0;
  // Those that need no daemon are sent without a connection.
  virtual bool isLocal() const { return false; }

  // Kept by ClientCore.
  std::uint64_t id = 0;
  std::size_t bytes = 0;  // of data that it holds
  std::chrono::milliseconds timeout{};
  Reactor::TimerId timer = 0;
  bool sent = false;
  std::optional<ClientError> refusal;  // found wanting before it was submitted
  std::atomic<bool> settled{false};
};

// One with a result of type T.
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
