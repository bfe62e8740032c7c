// SPDX-License-Identifier: Apache-2.0
#include "client/client_error.h"

namespace keel {

std::string_view nameOf(ClientError::Kind kind) {
  switch (kind) {
    using enum ClientError::Kind;
    case notRunning:
      return "notRunning";
    case permissionDenied:
      return "permissionDenied";
    case connectFailed:
      return "connectFailed";
    case disconnected:
      return "disconnected";
    case timedOut:
      return "timedOut";
    case tooMany:
      return "tooMany";
    case tooLarge:
      return "tooLarge";
    case badArgument:
      return "badArgument";
    case duplicate:
      return "duplicate";
    case notOwner:
      return "notOwner";
    case notFound:
      return "notFound";
    case nilName:
      return "nilName";
    case authFailed:
      return "authFailed";
    case authIDNotFound:
      return "authIDNotFound";
    case notAdmin:
      return "notAdmin";
    case notAuthorized:
      return "notAuthorized";
    case requestFailed:
      return "requestFailed";
    case refused:
      return "refused";
    case wouldDeadlock:
      return "wouldDeadlock";
    case closed:
      return "closed";
    case forked:
      return "forked";
  }
  return "unknown";
}

}  // namespace keel
