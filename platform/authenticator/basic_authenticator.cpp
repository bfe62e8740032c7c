// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/basic_authenticator.h"

#include <fmt/format.h>

#include "platform/authenticator/auth_parameters.h"
#include "platform/authenticator/basic_answer.h"

namespace keel {

String BasicAuthenticator::generateInitialResponse() {
  return String(fmt::format("Basic realm={}, charset=\"UTF-8\"", quotedString(realm_)));
}

bool BasicAuthenticator::validateChallenge(const String& answer, String* generateResponse) {
  if (std::exchange(wasAnswered_, true)) return false;
  const auto parsed = BasicAnswer::parse(answer.view());
  if (!parsed || !accounts_.isPassword(parsed->user(), parsed->password())) return false;
  userName_ = String(parsed->user());
  if (generateResponse != nullptr) *generateResponse = nullptr;
  return true;
}

}  // namespace keel
