// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/basic_answer.h"

#include <algorithm>
#include <utility>

#include "platform/authenticator/auth_parameters.h"
#include "runtime/foundation/base64.h"
#include "runtime/foundation/utf8.h"

namespace keel {

std::optional<BasicAnswer> BasicAnswer::parse(std::string_view text) {
  if (text.size() > kMaxBytes) return std::nullopt;
  const std::string_view encoded = afterScheme(text, "basic").value_or(text);
  Secret decoded(maximumDecodedBytes(encoded));
  const auto size = decodeBase64(encoded, decoded.bytes());
  if (!size) return std::nullopt;
  decoded.shrink(*size);
  const bool hasControl = std::ranges::any_of(
      decoded.text(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; });
  const std::size_t colon = decoded.text().find(':');
  if (hasControl || !isUtf8(decoded.text()) || colon == std::string_view::npos || colon == 0)
    return std::nullopt;
  return BasicAnswer(std::move(decoded), colon);
}

}  // namespace keel
