// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "client/client_error.h"
#include "runtime/foundation/string.h"

// Turns failures into a ClientError with a helpful message. `what` describes the request: "publish
// \"weather\"".

namespace keel::diagnosis {

// Returns a name for messages: quoted, escaped and shortened; "(no name)" for null.
std::string shownName(const String& name);

// Connecting to the socket at `path` failed.
ClientError ofConnecting(const Error& error, const std::string& path);
// The connection ended; `goodbye` is the daemon's reason, if any.
ClientError ofLoss(std::string_view goodbye);
// The connection ended while the request was in flight.
ClientError ofRequestAtLoss(const std::string& what, const std::string& reason);
// The request timed out waiting for a connection.
ClientError ofWaiting(const std::string& what, const ClientError& reason,
                      std::chrono::milliseconds timeout);
ClientError ofTimeout(const std::string& what, std::chrono::milliseconds timeout);
// The daemon answered with an error, or the call could not be made.
ClientError ofAnswer(const std::string& what, const Error& error);
// A right was refused; the status is one of Authorization Services.
ClientError ofRight(std::int32_t status);
// Making an authorization reference to this process failed.
ClientError ofForm(const std::error_code& problem);
ClientError ofClosing(const std::string& what);
// This process was forked from the one that has the library's thread.
ClientError ofFork(const std::string& what);

}  // namespace keel::diagnosis
