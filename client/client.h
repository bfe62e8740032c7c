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
  // Where the daemon's socket is; empty for the fixed place, /run/keeld.
  std::string serviceDirectory = {};

  // Whether a lost connection, or one that could not be made, is tried again. Without, the client
  // is good for one connection.
  bool reconnect = true;
  // The pause before a new attempt: doubled from one to the next, up to the maximum, and shortened
  // at random by up to a half, so that not all clients come at once. Back to the minimum when a
  // connection has lasted as long as the maximum.
  std::chrono::milliseconds minimumPause{100};
  std::chrono::milliseconds maximumPause{10'000};

  // How long a request may take, from its beginning; Request::within() says otherwise for one of
  // them.
  std::chrono::milliseconds requestTimeout{30'000};

  // Requests that may wait for their answer, and the bytes of data that they may hold.
  std::size_t waitingRequests = 4096;
  std::size_t waitingBytes = 256u << 20;
};

// Where a client stands with the daemon.
struct ConnectionState {
  enum class Kind : std::uint8_t {
    connecting,
    connected,
    disconnected,  // and not connecting: between two attempts, or for good
    closed,        // close() was called
  };
  Kind kind = Kind::connecting;
  // Why it is disconnected; empty otherwise.
  std::string reason = {};
  ClientError::Kind error = ClientError::Kind::disconnected;  // of a disconnected one
};

// How a publication of this client stands.
struct PublicationState {
  enum class Kind : std::uint8_t {
    published,
    waiting,  // the connection is gone; published anew with the next one
    refused,  // the daemon refused to publish it anew, since somebody else took the name; tried
              // again with the next connection
  };
  String name;
  Kind kind = Kind::published;
  Error error;  // of a refused one
};

// A program's link to keeld's notification service: publish named items, follow names, ask what is
// there.
//
// Everything may be called from any thread and returns at once, but for Request::wait(). Callbacks
// run on a thread of the library, one at a time; they may call everything here, must not block, and
// an exception that leaves them ends the process. The library's threads block all signals but
// faults, so a program may set up its own at any time. A process started in a callback inherits
// that mask unless it is given another (posix_spawnattr_setsigmask(3)).
//
// What a client publishes and follows lasts as long as its connection to the daemon, which keeps
// nothing. The client connects by itself when it is made, and again when the connection is lost; it
// then publishes anew what it had published, with the last data that was accepted, and follows anew
// what it followed, in the order in which that was first done. Requests that were under way at the
// loss end with `disconnected`; those made while there is no connection wait for the next one, at
// most until their timeout.
//
// It belongs to the process that made it: a child that is forked afterwards has neither the
// library's thread nor a use of the connection. There every request of every client fails at once
// with `forked`, no callback runs, and destroying a client leaves that of the parent alone. The
// child holds the parent's connection open until it ends or executes a program. In a child that is
// forked by a callback, do nothing but execute a program or _exit(2).
//
// Destroying it ends everything at once: when the destructor has returned no callback runs (unless
// it is a callback that destroys it) and none will; futures and blocked callers get `closed`. The
// destructor waits for a callback that is just running; so hold no lock which callbacks take.
class KLNClient {
 public:
  static std::unique_ptr<KLNClient> create(ClientOptions options = {});
  // For tests, which bring a core of their own.
  explicit KLNClient(std::shared_ptr<ClientCore> core);
  ~KLNClient();
  KLNClient(const KLNClient&) = delete;
  KLNClient& operator=(const KLNClient&) = delete;

  // Called with every change from now on, and first with the state that stands.
  void setStateHandler(std::move_only_function<void(const ConnectionState&)> handler);
  // Called when a publication could not be made anew after a reconnection.
  void setPublicationHandler(std::move_only_function<void(const PublicationState&)> handler);

  // Ends the connection. Requests that wait end with `closed`, and so does every later one.
  void close();

  // Names are any text, compared exactly. A null name is sent as it is: the daemon answers with
  // `nilName` or `notFound`.

  // Publishes `data`, a map or null, under a name that nobody publishes. `duplicate` otherwise,
  // also when it is this client.
  Request<void> publish(String name, Value data, std::uint64_t flags = 0, std::int64_t value = 0);
  // Replaces the data of a name that this client publishes. `notFound` otherwise.
  Request<void> update(String name, Value data);
  // Withdraws a name that this client publishes. `notFound` otherwise. Subscribers are not told.
  Request<void> remove(String name);

  // Follows a name, published or not. `duplicate` when this client follows it already.
  Request<Subscription> subscribe(String name, EventCallback callback);

  // What the daemon knows of that name, or of every name. `notFound` for a name that nobody ever
  // published or followed.
  Request<std::vector<DumpEntry>> dump(String name, bool withData = false);
  Request<std::vector<DumpEntry>> dumpAll(bool withData = false);

  // Whether that user was proved an administrator in that audit session.
  Request<bool> authCheck(String user, std::int32_t auditSession);
  // "keel_" and the short name of each enabled module, with its service name.
  Request<std::map<std::string, std::string>> moduleTable();

  // What this client publishes, in the order in which it was published. Answered without the
  // daemon.
  Request<std::vector<PublicationState>> publications();

 private:
  std::shared_ptr<ClientCore> core_;
};

}  // namespace keel
