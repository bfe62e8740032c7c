// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <utility>

#include "client/client_error.h"

namespace keel {

template <class T>
using ResultCallback = std::move_only_function<void(ClientResult<T>)>;

// The implementation of a Request<T>, provided by the client.
template <class T>
class RequestSource {
 public:
  // Set by the first event that settles the request: its answer, its timeout, or a waiter's
  // timeout.
  using Settled = std::shared_ptr<std::atomic<bool>>;

  virtual ~RequestSource() = default;
  virtual ClientResult<Settled> begin(std::chrono::milliseconds timeout,
                                      ResultCallback<T> callback) = 0;
  virtual bool onLibraryThread() const = 0;
  virtual ClientError timedOut(std::chrono::milliseconds timeout) const = 0;
};

// A prepared request of KLNClient: then(), future() or wait() begins it and determines how its
// result is delivered; requests are sent in the order of these calls. A request that is never begun
// is never sent.
//
//   client->publish("weather", data).then([](ClientResult<void> result) { ... });
//   std::future<ClientResult<void>> result = client->publish("weather", data).future();
//   ClientResult<void> result = client->publish("weather", data).within(2s).wait();
template <class T>
class [[nodiscard]] Request {
 public:
  Request(std::unique_ptr<RequestSource<T>> source, std::chrono::milliseconds timeout)
      : source_(std::move(source)), timeout_(bounded(timeout)) {}

  // Sets the timeout, after which the request ends with `timedOut`; the default is in the client's
  // options. Time spent waiting for a connection counts. A publication or subscription that the
  // daemon accepts too late is undone.
  Request within(std::chrono::milliseconds timeout) && {
    timeout_ = bounded(timeout);
    return std::move(*this);
  }

  // Calls `callback(result)` once, later, on the library's thread. Fails, without calling it, if
  // too many requests are pending already.
  ClientResult<void> then(ResultCallback<T> callback) && {
    auto settled = source_->begin(timeout_, std::move(callback));
    if (!settled) return std::unexpected(settled.error());
    return {};
  }

  // Returns a future that always becomes ready, with `closed` if the client is destroyed. Never
  // wait for it on the library's own thread.
  std::future<ClientResult<T>> future() && { return std::move(begin().future); }

  // Waits for the result. On the library's own thread it sends nothing and returns `wouldDeadlock`.
  ClientResult<T> wait() && {
    if (source_->onLibraryThread()) {
      return std::unexpected(ClientError(
          ClientError::Kind::wouldDeadlock,
          "a callback cannot wait for keeld's answer, which it would itself hold up; use then()"));
    }
    Begun begun = begin();
    // The client's own timer ends the request in time unless a callback blocks the library's
    // thread.
    if (begun.settled && begun.future.wait_for(timeout_) == std::future_status::timeout &&
        !begun.settled->exchange(true)) {
      return std::unexpected(source_->timedOut(timeout_));
    }
    return begun.future.get();
  }

 private:
  struct Begun {
    std::future<ClientResult<T>> future;
    typename RequestSource<T>::Settled settled;  // null when the future is ready
  };

  // Fulfils its promise exactly once, at the latest when it is destroyed.
  class Promise {
   public:
    Promise() : promise_(new std::promise<ClientResult<T>>) {}
    Promise(Promise&&) noexcept = default;
    ~Promise() {
      if (promise_)
        (*this)(std::unexpected(
            ClientError(ClientError::Kind::closed, "the client was closed before keeld answered")));
    }
    std::future<ClientResult<T>> future() { return promise_->get_future(); }
    void operator()(ClientResult<T> result) {
      const auto promise = std::move(promise_);
      promise->set_value(std::move(result));
    }

   private:
    std::unique_ptr<std::promise<ClientResult<T>>> promise_;
  };

  // Bounds timeouts so that no clock overflows.
  static std::chrono::milliseconds bounded(std::chrono::milliseconds timeout) {
    return std::clamp<std::chrono::milliseconds>(timeout, std::chrono::milliseconds(0),
                                                 std::chrono::years(100));
  }

  Begun begin() {
    Promise promise;
    Begun begun{promise.future(), nullptr};
    auto settled = source_->begin(timeout_, std::move(promise));
    if (settled) {
      begun.settled = std::move(*settled);
    } else {
      std::promise<ClientResult<T>> refused;
      begun.future = refused.get_future();
      refused.set_value(std::unexpected(settled.error()));
    }
    return begun;
  }

  std::unique_ptr<RequestSource<T>> source_;
  std::chrono::milliseconds timeout_;
};

}  // namespace keel
