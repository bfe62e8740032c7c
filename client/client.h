// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/client_error.h"
#include "client/dump_entry.h"
#include "client/request.h"
#include "client/subscription.h"
#include "runtime/foundation/string.h"
#include "runtime/foundation/value.h"

namespace keel {

class ClientCore;

// How one KLNClient behaves.
struct ClientOptions {
  // Directory of the daemon's socket; empty for the default, /run/keeld.
  std::string serviceDirectory = {};

  // Reconnects after a lost or failed connection. If false, the client makes one connection only.
  bool reconnect = true;
  // Pause before the next attempt: doubles up to the maximum, with a random jitter that shortens it
  // by up to a half, so that clients do not reconnect all at once. Reset to the minimum once a
  // connection has lasted as long as the maximum.
  std::chrono::milliseconds minimumPause{100};
  std::chrono::milliseconds maximumPause{10'000};

  // Timeout of a request, from its begin; Request::within() overrides it for one request.
  std::chrono::milliseconds requestTimeout{30'000};

  // Maximum number of unanswered requests, and of the bytes of data in them.
  std::size_t waitingRequests = 4096;
  std::size_t waitingBytes = 256u << 20;
};

// State of a client's connection to the daemon.
struct ConnectionState {
  enum class Kind : std::uint8_t {
    connecting,
    connected,
    disconnected,  // and not connecting: between two attempts, or for good
    closed,        // close() was called
  };
  Kind kind = Kind::connecting;
  // The reason of a disconnection; empty otherwise.
  std::string reason = {};
  ClientError::Kind error = ClientError::Kind::disconnected;  // if disconnected
};

// State of a publication of this client.
struct PublicationState {
  enum class Kind : std::uint8_t {
    published,
    waiting,  // the connection is lost; restored with the next one
    refused,  // the daemon refused to restore it, since another client took the name; retried with
              // the next connection
  };
  String name;
  Kind kind = Kind::published;
  Error error;  // if refused
};

// A program's client of keeld's notification service: publishes named items, follows names, lists
// items.
//
// Every method may be called from any thread and returns immediately, except Request::wait().
// Callbacks run on the library's thread, one at a time; they may call everything here and must not
// block; an exception that leaves one ends the process. The library's threads block all signals but
// faults, so a program may set up its own at any time. A process started in a callback inherits
// that mask unless it is given another (posix_spawnattr_setsigmask(3)).
//
// Publications and subscriptions last as long as the connection to the daemon, which persists
// nothing. The client connects when it is created and reconnects when the connection is lost; then
// it restores its publications, with the last accepted data, and its subscriptions, in their
// original order. Requests in flight at the loss end with `disconnected`; requests made while there
// is no connection wait for the next one, at most until their timeout.
//
// A client belongs to the process that created it. In a child forked afterwards every request of
// every client fails immediately with `forked`, no callback runs, and destroying a client leaves
// the parent's alone. The child holds the parent's connection open until it ends or executes a
// program. In a child forked by a callback, do nothing but execute a program or _exit(2).
//
// Once the destructor has returned, no callback runs (unless a callback destroys the client) and
// none will; futures and blocked callers get `closed`. The destructor waits for a running callback,
// so do not hold a lock that callbacks take.
class KLNClient {
 public:
  static std::unique_ptr<KLNClient> create(ClientOptions options = {});
  // For tests, which supply their own core.
  explicit KLNClient(std::shared_ptr<ClientCore> core);
  ~KLNClient();
  KLNClient(const KLNClient&) = delete;
  KLNClient& operator=(const KLNClient&) = delete;

  // Calls `handler` with the current state, then with every change.
  void setStateHandler(std::move_only_function<void(const ConnectionState&)> handler);
  // Calls `handler` when a publication could not be restored after a reconnection.
  void setPublicationHandler(std::move_only_function<void(const PublicationState&)> handler);

  // Ends the connection. Pending and later requests end with `closed`.
  void close();

  // Names are any text, compared exactly. A null name is sent to the daemon, which answers with
  // `nilName` or `notFound`.

  // Publishes `data`, a map or null, under an unpublished name. `duplicate` if any client, this one
  // included, publishes the name.
  Request<void> publish(String name, Value data, std::uint64_t flags = 0, std::int64_t value = 0);
  // Replaces the data of a name that this client publishes. `notFound` otherwise.
  Request<void> update(String name, Value data);
  // Withdraws a name that this client publishes. `notFound` otherwise. Subscribers receive nothing.
  Request<void> remove(String name);

  // Follows a name, published or not. `duplicate` if this client already follows it.
  Request<Subscription> subscribe(String name, EventCallback callback);

  // Return the daemon's record of that name, or of all names. `notFound` for a name that was never
  // published or followed.
  Request<std::vector<DumpEntry>> dump(String name, bool withData = false);
  Request<std::vector<DumpEntry>> dumpAll(bool withData = false);

  // Returns true if that user was proved an administrator in that audit session.
  Request<bool> authCheck(String user, std::int32_t auditSession);
  // Returns the service name of each enabled module, by "keel_" and its short name.
  Request<std::map<std::string, std::string>> moduleTable();

  // Returns this client's publications in the order of publishing. Answered locally.
  Request<std::vector<PublicationState>> publications();

 private:
  std::shared_ptr<ClientCore> core_;
};

}  // namespace keel
