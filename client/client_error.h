// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/foundation/error.h"

namespace keel {

// Why a request of KLNClient came to nothing.
class ClientError {
 public:
  enum class Kind : std::uint8_t {
    notRunning,        // nobody serves the socket
    permissionDenied,  // the system does not let this process connect
    connectFailed,     // connecting failed for another reason
    disconnected,  // the connection ended before the answer; whether the request was served is not
                   // known
    timedOut,      // no answer in time
    tooMany,       // more requests wait for their answer than Options allow; nothing was sent
    tooLarge,      // larger than one message may be
    badArgument,   // what was given cannot be sent: no dictionary, not UTF-8, nested too deep, a
                   // date that is no date
    duplicate,     // the name is published already, or followed already by this client
    notOwner,      // somebody else publishes the name
    notFound,      // no such name, or this client does not publish it
    nilName,       // a name is required
    authFailed,    // wrong user name, password or answer, or an account that may not be used
    authIDNotFound,  // no challenge is open under that ID on this connection
    notAdmin,        // right credentials, but of no administrator
    notAuthorized,   // this process does not hold the right; the underlying error's code says more
    requestFailed,   // the daemon could not do it
    refused,         // the daemon took the request for malformed, or answered what does not fit
    wouldDeadlock,   // waiting on the library's own thread, which would have to bring the answer
    closed,          // the client was closed or destroyed
    forked,  // this process was forked, and the library's thread and connections are its parent's
  };

  ClientError(Kind kind, std::string message, Error underlying = nullptr)
      : kind_(kind), message_(std::move(message)), underlying_(std::move(underlying)) {}

  Kind kind() const { return kind_; }
  // One sentence or two for people: what happened, to whom, and what to do.
  const std::string& message() const { return message_; }
  // The error as the daemon or the system gave it; null when it began in this process.
  const Error& underlying() const { return underlying_; }

 private:
  Kind kind_;
  std::string message_;
  Error underlying_;
};

// The enumerator's name, "notRunning".
std::string_view nameOf(ClientError::Kind kind);

template <class T>
using ClientResult = std::expected<T, ClientError>;

}  // namespace keel
