// SPDX-License-Identifier: Apache-2.0
#include "tools/session.h"

#include <algorithm>
#include <fstream>

#include "client/shown_text.h"
#include "runtime/foundation/utf8.h"
#include "tools/json_value.h"

namespace keel {

namespace {

// Practically unlimited, without overflowing a clock.
constexpr std::chrono::milliseconds kForGood = std::chrono::years(100);

constexpr std::size_t kShownNameColumns = 200;

}  // namespace

std::optional<std::chrono::milliseconds> CommonOptions::timeout() const {
  if (!timeoutSeconds) return std::nullopt;
  const double longest = static_cast<double>(kForGood.count());
  return std::chrono::milliseconds(
      static_cast<std::int64_t>(std::clamp(*timeoutSeconds * 1000, 0.0, longest)));
}

std::chrono::milliseconds answerTimeout(bool reconnect) {
  return reconnect ? kForGood : kAnswerTimeout;
}

std::unique_ptr<KLNClient> connectClient(const CommonOptions& options, bool reconnect) {
  ClientOptions clientOptions;
  clientOptions.serviceDirectory = options.serviceDirectory;
  clientOptions.reconnect = reconnect;
  clientOptions.requestTimeout = answerTimeout(reconnect);
  return KLNClient::create(std::move(clientOptions));
}

ExitCode report(Console& console, const ClientError& error) {
  console.note(error.message());
  return exitCodeOf(error.kind());
}

ExitCode reportUsage(Console& console, const std::string& what, const std::string& command) {
  console.note(what + "; see " + command + " --help");
  return kExitUsage;
}

bool isName(Console& console, const std::string& name) {
  if (isUtf8(name)) return true;
  reportUsage(console, "the name is not valid UTF-8");
  return false;
}

std::int32_t ownAuditSession() {
  std::uint32_t session = ~0U;
  std::ifstream("/proc/self/sessionid") >> session;
  return static_cast<std::int32_t>(session);
}

std::string shownName(std::string_view name) {
  return name.empty() ? "(empty)" : shownText(name, kShownNameColumns);
}

std::optional<Value> dataOfJson(Console& console, const std::string& json,
                                const std::string& where) {
  auto value = valueOfJson(json);
  if (!value) {
    reportUsage(console, where + ": " + value.error());
    return std::nullopt;
  }
  if (!value->isMap() && !value->isNull()) {
    reportUsage(console, where + ": the data of an item is a JSON object, or null");
    return std::nullopt;
  }
  return std::move(*value);
}

}  // namespace keel
