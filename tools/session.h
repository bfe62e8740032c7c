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

// What all commands of keelctl have in common.
struct CommonOptions {
  std::string serviceDirectory;  // empty: the fixed one
  bool json = false;
  std::optional<double> timeoutSeconds;

  std::optional<std::chrono::milliseconds> timeout() const;
};

// How long one request waits for keeld's answer.
inline constexpr std::chrono::milliseconds kAnswerTimeout{10'000};

// Whoever waits for keeld itself (`reconnect`) does so for good.
std::chrono::milliseconds answerTimeout(bool reconnect);

// Its requests wait for their answers as long as answerTimeout() says.
std::unique_ptr<KLNClient> connectClient(const CommonOptions& options, bool reconnect);

// Tells a person what went wrong; yields what to exit with.
ExitCode report(Console& console, const ClientError& error);
// `command` is the one whose --help tells more.
ExitCode reportUsage(Console& console, const std::string& what,
                     const std::string& command = "keelctl");

// Whether it is a name that can be sent; tells a person when it is not.
bool isName(Console& console, const std::string& name);

// The audit session of this process, as the kernel has it; -1 when unset.
std::int32_t ownAuditSession();

// A name for people, who must see the empty one too.
std::string shownName(std::string_view name);

// The JSON of an item's data: an object, or null. Tells a person when it is not; `where` says which
// it is.
std::optional<Value> dataOfJson(Console& console, const std::string& json,
                                const std::string& where);

}  // namespace keel
