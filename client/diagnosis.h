// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "client/client_error.h"
#include "runtime/foundation/string.h"

// From what went wrong to a ClientError whose message helps. `what` says what was asked for:
// "publish \"weather\"".

namespace keel::diagnosis {

// A name in a message: quoted, escaped and shortened; "(no name)" for null.
std::string shownName(const String& name);

// The socket at `path` could not be connected.
ClientError ofConnecting(const Error& error, const std::string& path);
// The connection ended; `farewell` is what the daemon said, if anything.
ClientError ofLoss(std::string_view farewell);
// A request was under way when the connection ended.
ClientError ofRequestAtLoss(const std::string& what, const std::string& reason);
// A request waited for a connection in vain.
ClientError ofWaiting(const std::string& what, const ClientError& reason,
                      std::chrono::milliseconds timeout);
ClientError ofTimeout(const std::string& what, std::chrono::milliseconds timeout);
// The daemon answered with an error, or the call could not be made.
ClientError ofAnswer(const std::string& what, const Error& error);
// A right could not be had; the status is one of Authorization Services.
ClientError ofRight(std::int32_t status);
// An authorization reference to this process could not be made.
ClientError ofForm(const std::error_code& problem);
ClientError ofClosing(const std::string& what);
// This process was forked from the one that has the library's thread.
ClientError ofFork(const std::string& what);

}  // namespace keel::diagnosis
