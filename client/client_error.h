// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/foundation/error.h"

namespace keel {

// The reason for a failed request of KLNClient or KLNAuthClient.
class ClientError {
 public:
  enum class Kind : std::uint8_t {
    notRunning,        // no process serves the socket
    permissionDenied,  // this process has no permission to connect
    connectFailed,     // connecting failed for another reason
    disconnected,      // the connection ended before the answer; the request may have been served
    timedOut,          // no answer in time
    tooMany,           // more unanswered requests than the options allow; nothing was sent
    tooLarge,          // exceeds the maximum message size
    badArgument,     // the argument cannot be sent: no dictionary, not UTF-8, nested too deeply, an
                     // invalid date
    duplicate,       // the name is published already, or followed already by this client
    notOwner,        // another client publishes the name, or it is reserved for another user
    notFound,        // no such name, or this client does not publish it
    nilName,         // a name is required
    authFailed,      // wrong user name, password or answer, or an account that may not be used
    authIDNotFound,  // no challenge is open under that ID on this connection
    notAdmin,        // correct credentials of a user who is no administrator
    notAuthorized,   // this process does not hold the right; see the underlying error's code
    requestFailed,   // the daemon failed to serve the request
    refused,         // the daemon considered the request malformed, or its answer was
    wouldDeadlock,   // waiting on the library's own thread, which delivers the answer
    closed,          // the client was closed or destroyed
    forked,  // this process was forked; the library's thread and connections belong to its parent
  };

  ClientError(Kind kind, std::string message, Error underlying = nullptr)
      : kind_(kind), message_(std::move(message)), underlying_(std::move(underlying)) {}

  Kind kind() const { return kind_; }
  // Returns a message for people: what happened, to whom, and what to do.
  const std::string& message() const { return message_; }
  // Returns the error of the daemon or the system; null if it originated in this process.
  const Error& underlying() const { return underlying_; }

 private:
  Kind kind_;
  std::string message_;
  Error underlying_;
};

// Returns the enumerator's name, "notRunning".
std::string_view nameOf(ClientError::Kind kind);

template <class T>
using ClientResult = std::expected<T, ClientError>;

}  // namespace keel
