// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <vector>

#include "platform/authenticator/basic_answer.h"
#include "runtime/foundation/base64.h"
#include "runtime/foundation/check.h"

// Fuzzes the decoder of answers to basic challenges, with the input as the answer and as its
// decoded content.

namespace {

using keel::BasicAnswer;

void check(std::string_view text) {
  const auto answer = BasicAnswer::parse(text);
  if (!answer) return;
  KEEL_CHECK(text.size() <= BasicAnswer::kMaxBytes);
  KEEL_CHECK(!answer->user().empty() && !answer->user().contains(':'));
  const std::string both = std::string(answer->user()) + ":" + std::string(answer->password());
  KEEL_CHECK(!both.contains('\0'));
  // The encoding of bytes is unique.
  KEEL_CHECK(text.ends_with(keel::encodeBase64(std::as_bytes(std::span(both)))));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A copy of exactly that size, so that the address sanitizer sees every read beyond it.
  const std::vector<char> input(data, data + size);
  check({input.data(), input.size()});
  check("Basic " + keel::encodeBase64(std::as_bytes(std::span(input))));
  return 0;
}
