// SPDX-License-Identifier: Apache-2.0
#include "platform/authorization/external_form.h"

#include <algorithm>
#include <string_view>

namespace keel {

namespace {

// Offsets of the fields. Integers are little-endian.
constexpr std::size_t kMarkAt = 0;
constexpr std::size_t kPidAt = 8;
constexpr std::size_t kUidAt = 12;
constexpr std::size_t kStartTimeAt = 16;
constexpr std::size_t kEndMarkAt = 24;

// The markers carry the version. The second one detects truncation.
constexpr std::string_view kMark = "KeelRef1";
constexpr std::string_view kEndMark = "1feRleeK";

template <class Number>
void put(AuthorizationExternalForm& form, std::size_t at, Number number) {
  for (std::size_t i = 0; i < sizeof(Number); ++i)
    form.bytes[at + i] = static_cast<std::byte>(number >> (8 * i));
}

template <class Number>
Number get(const AuthorizationExternalForm& form, std::size_t at) {
  Number number = 0;
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    number = static_cast<Number>(number | static_cast<Number>(form.bytes[at + i]) << (8 * i));
  }
  return number;
}

void put(AuthorizationExternalForm& form, std::size_t at, std::string_view mark) {
  std::ranges::copy(std::as_bytes(std::span(mark)),
                    form.bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

bool has(const AuthorizationExternalForm& form, std::size_t at, std::string_view mark) {
  return std::ranges::equal(std::span(form.bytes).subspan(at, mark.size()),
                            std::as_bytes(std::span(mark)));
}

}  // namespace

AuthorizationExternalForm externalFormOf(const ProcessName& process) {
  AuthorizationExternalForm form;
  put(form, kMarkAt, kMark);
  put(form, kPidAt, process.pid);
  put(form, kUidAt, process.uid);
  put(form, kStartTimeAt, process.startTime);
  put(form, kEndMarkAt, kEndMark);
  return form;
}

std::optional<ProcessName> processOf(const AuthorizationExternalForm& form) {
  if (!has(form, kMarkAt, kMark) || !has(form, kEndMarkAt, kEndMark)) return std::nullopt;
  return ProcessName{get<std::uint32_t>(form, kPidAt), get<std::uint32_t>(form, kUidAt),
                     get<std::uint64_t>(form, kStartTimeAt)};
}

}  // namespace keel
