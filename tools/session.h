// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "client/client.h"
#include "tools/console.h"
#include "tools/exit_code.h"

namespace keel {

// Options common to all commands of keelctl.
struct CommonOptions {
  std::string serviceDirectory;  // empty: the default
  bool json = false;
  std::optional<double> timeoutSeconds;

  std::optional<std::chrono::milliseconds> timeout() const;
};

// Default timeout of a request.
inline constexpr std::chrono::milliseconds kAnswerTimeout{10'000};

// Returns the timeout of a request: unlimited for a command that reconnects.
std::chrono::milliseconds answerTimeout(bool reconnect);

// Creates a client whose requests have the timeout answerTimeout().
std::unique_ptr<KLNClient> connectClient(const CommonOptions& options, bool reconnect);

// Prints the error and returns the exit status.
ExitCode report(Console& console, const ClientError& error);
// Prints a usage error and refers to the --help of `command`.
ExitCode reportUsage(Console& console, const std::string& what,
                     const std::string& command = "keelctl");

// Returns true if `name` can be sent; prints the reason otherwise.
bool isName(Console& console, const std::string& name);

// Returns the audit session of this process; -1 if unset.
std::int32_t ownAuditSession();

// Returns a name for people; makes an empty one visible.
std::string shownName(std::string_view name);

// Parses the JSON of an item's data: an object or null. Prints the reason if it is neither; `where`
// identifies the text in that message.
std::optional<Value> dataOfJson(Console& console, const std::string& json,
                                const std::string& where);

}  // namespace keel
