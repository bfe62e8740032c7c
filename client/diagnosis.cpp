// SPDX-License-Identifier: Apache-2.0
#include "client/diagnosis.h"

#include <fmt/format.h>

#include <cerrno>

#include "client/shown_text.h"
#include "platform/authorization/authorization.h"
#include "platform/product/product.h"
#include "runtime/foundation/value.h"
#include "runtime/xpc/connection.h"

namespace keel::diagnosis {

using Kind = ClientError::Kind;

namespace {

std::string seconds(std::chrono::milliseconds duration) {
  return fmt::format("{} s", static_cast<double>(duration.count()) / 1000);
}

// Returns the description in the error, or an empty text.
std::string descriptionIn(const Error& error) {
  return std::string(error.userInfo().value().textOf(NSLocalizedDescriptionKey));
}

ClientError ofDaemonError(const std::string& what, const Error& error) {
  const auto refusal = [&](Kind kind, const char* otherwise) {
    const std::string description = descriptionIn(error);
    return ClientError(
        kind,
        fmt::format("keeld refused to {}: {} (error {})", what,
                    description.empty() ? otherwise : shownText(description, 200), error.code()),
        error);
  };
  switch (error.code()) {
    case errAuthFailed:
      return refusal(
          Kind::authFailed,
          "the user name, the password or the answer is wrong, or the account may not be used");
    case errAuthIDNotFound:
      return refusal(Kind::authIDNotFound,
                     "no such challenge is open on this connection; start a new one");
    case errNotAdmin:
      return refusal(Kind::notAdmin, "the user proved who it is, but is not in the group admin");
    case errDuplicate:
      return refusal(Kind::duplicate, "this client does so already");
    case errNotOwner:
      return refusal(Kind::notOwner,
                     "another connection publishes it, or the name is reserved for another user");
    case errNotFound:
      return refusal(Kind::notFound, "this client does not publish it");
    case errNilName:
      return refusal(Kind::nilName, "a name is required");
    default:
      return {Kind::requestFailed,
              fmt::format("keeld failed to {}: {}", what, shownText(error.description(), 400)),
              error};
  }
}

// Explains a status of Authorization Services to the caller.
const char* meaningOf(std::int64_t status) {
  switch (status) {
    case errAuthorizationInvalidRef:
      return "the reference is not that of this process";
    case errAuthorizationDenied:
      return "this process does not hold the right to manage daemons; see the rules of polkit";
    case errAuthorizationInteractionNotAllowed:
      return "this process gets the right to manage daemons only after a proof; ask for it with "
             "interaction first";
    case errAuthorizationInternal:
      return "polkit could not be asked for the right to manage daemons; see the log of keeld";
    default:
      return "the authorization was refused";
  }
}

}  // namespace

std::string shownName(const String& name) {
  return name.isNull() ? "(no name)" : quotedText(name.view());
}

ClientError ofConnecting(const Error& error, const std::string& path) {
  const bool posix = error.domain() == String(NSPOSIXErrorDomain);
  switch (posix ? error.code() : 0) {
    case ENOENT:
      return {
          Kind::notRunning,
          fmt::format(
              "keeld is not running: no socket at {}; start it with `systemctl start keeld`", path),
          error};
    case ECONNREFUSED:
      return {Kind::notRunning,
              fmt::format("keeld is not running: nobody serves the socket at {}; start it with "
                          "`systemctl start keeld`",
                          path),
              error};
    case EACCES:
    case EPERM:
      return {Kind::permissionDenied,
              fmt::format("the system does not let this process connect to {}; look at the "
                          "permissions of that path",
                          path),
              error};
    default:
      return {Kind::connectFailed,
              fmt::format("cannot connect to keeld at {}: {}", path, error.description()), error};
  }
}

ClientError ofLoss(std::string_view goodbye) {
  if (goodbye.empty()) return {Kind::disconnected, "keeld closed the connection"};
  return {Kind::disconnected,
          fmt::format("keeld closed the connection: {}", shownText(goodbye, 400))};
}

ClientError ofRequestAtLoss(const std::string& what, const std::string& reason) {
  return {Kind::disconnected,
          fmt::format("the request to {} was not answered, and may or may not have been served: {}",
                      what, reason)};
}

ClientError ofWaiting(const std::string& what, const ClientError& reason,
                      std::chrono::milliseconds timeout) {
  return {reason.kind(),
          fmt::format("could not {} within {}: {}", what, seconds(timeout), reason.message()),
          reason.underlying()};
}

ClientError ofTimeout(const std::string& what, std::chrono::milliseconds timeout) {
  return {Kind::timedOut,
          fmt::format("keeld did not answer the request to {} within {}", what, seconds(timeout))};
}

ClientError ofAnswer(const std::string& what, const Error& error) {
  if (error.domain() == String(KLNErrorDomain)) return ofDaemonError(what, error);
  if (error.domain() == String(NSOSStatusErrorDomain)) {
    return {Kind::notAuthorized,
            fmt::format("keeld refused to {}: {} (status {})", what, meaningOf(error.code()),
                        error.code()),
            error};
  }
  if (error.domain() == String(xpc::kConnectionErrorDomain)) {
    if (error.code() == static_cast<std::int64_t>(xpc::ConnectionErrorCode::invalid))
      return ofRequestAtLoss(what, descriptionIn(error));
    const Value userInfo = error.userInfo().value();
    const Value* code = userInfo.find("failureCode");
    const bool tooLarge =
        code != nullptr && *code == Value(static_cast<int>(xpc::FailureCode::tooLarge));
    return {tooLarge ? Kind::tooLarge : Kind::refused,
            fmt::format("keeld could not be asked to {}: {}", what, descriptionIn(error)), error};
  }
  return {Kind::requestFailed,
          fmt::format("keeld failed to {}: {}", what, shownText(error.description(), 400)), error};
}

ClientError ofRight(std::int32_t status) {
  return {Kind::notAuthorized,
          fmt::format("no right to manage daemons: {} (status {})", meaningOf(status), status),
          Error(NSOSStatusErrorDomain, status)};
}

ClientError ofForm(const std::error_code& problem) {
  return {
      Kind::requestFailed,
      fmt::format("cannot make an authorization reference: /proc says nothing of this process ({})",
                  problem.message())};
}

ClientError ofClosing(const std::string& what) {
  return {Kind::closed,
          fmt::format("the client was closed before keeld answered the request to {}", what)};
}

ClientError ofFork(const std::string& what) {
  return {Kind::forked,
          fmt::format(
              "could not {}: this process was forked from one that used the library before, whose "
              "thread and connections "
              "stay there; fork before the first client is made, or execute a program in the child",
              what)};
}

}  // namespace keel::diagnosis
