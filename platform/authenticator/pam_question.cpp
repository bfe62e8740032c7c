// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/pam_question.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string>

namespace keel {

namespace {

// Account names are lines of text, and modules build file names from them.
bool isForeignToNames(char letter) {
  const auto byte = static_cast<unsigned char>(letter);
  return byte < 0x20 || byte == 0x7f || letter == '/';
}

bool canBeAsked(const PamQuestion& question) {
  if (question.user.empty() || question.user.size() > kUserNameBytes ||
      std::ranges::any_of(question.user, isForeignToNames)) {
    return false;
  }
  if (question.task == PamQuestion::Task::account) return question.password.empty();
  return question.task == PamQuestion::Task::password &&
         question.password.size() <= kPasswordBytes && !question.password.contains('\0');
}

// Consumes a text and its NUL at the front.
std::optional<std::string_view> takeText(std::string_view& texts) {
  const std::size_t end = texts.find('\0');
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view text = texts.substr(0, end);
  texts.remove_prefix(end + 1);
  return text;
}

}  // namespace

std::optional<Secret> encodePamQuestion(const PamQuestion& question) {
  if (!canBeAsked(question)) return std::nullopt;
  const std::string asking = question.askingUser ? std::to_string(*question.askingUser) : "";
  const std::array<std::string_view, 3> texts{asking, question.user, question.password};
  // Zero-filled, so that each text ends with a NUL.
  Secret packet(1 + asking.size() + 1 + question.user.size() + 1 + question.password.size() + 1);
  std::byte* at = packet.bytes().data();
  *at++ = static_cast<std::byte>(question.task);
  for (const std::string_view text : texts) {
    if (!text.empty()) std::memcpy(at, text.data(), text.size());
    at += text.size() + 1;
  }
  return packet;
}

std::optional<PamQuestion> decodePamQuestion(std::span<const std::byte> packet) {
  if (packet.size() < 5 || packet.back() != std::byte{0}) return std::nullopt;
  std::string_view texts(reinterpret_cast<const char*>(packet.data()) + 1, packet.size() - 2);
  const auto asking = takeText(texts);
  const auto user = takeText(texts);
  if (!asking || !user) return std::nullopt;
  PamQuestion question{
      .task = static_cast<PamQuestion::Task>(packet[0]), .user = *user, .password = texts};
  if (!asking->empty()) {
    uid_t uid = 0;
    const auto [end, problem] = std::from_chars(asking->begin(), asking->end(), uid);
    if (problem != std::errc() || end != asking->end()) return std::nullopt;
    question.askingUser = uid;
  }
  return canBeAsked(question) ? std::optional(question) : std::nullopt;
}

}  // namespace keel
