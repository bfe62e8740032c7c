// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/pam_question.h"

#include <algorithm>
#include <cstring>

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

}  // namespace

std::optional<Secret> encodePamQuestion(const PamQuestion& question) {
  if (!canBeAsked(question)) return std::nullopt;
  // Zero-filled, so that both texts end with a NUL.
  Secret packet(1 + question.user.size() + 1 + question.password.size() + 1);
  std::byte* const at = packet.bytes().data();
  *at = static_cast<std::byte>(question.task);
  std::memcpy(at + 1, question.user.data(), question.user.size());
  if (!question.password.empty())
    std::memcpy(at + 2 + question.user.size(), question.password.data(), question.password.size());
  return packet;
}

std::optional<PamQuestion> decodePamQuestion(std::span<const std::byte> packet) {
  if (packet.size() < 4 || packet.back() != std::byte{0}) return std::nullopt;
  const std::string_view texts(reinterpret_cast<const char*>(packet.data()) + 1, packet.size() - 2);
  const std::size_t userEnd = texts.find('\0');
  if (userEnd == std::string_view::npos) return std::nullopt;
  const PamQuestion question{.task = static_cast<PamQuestion::Task>(packet[0]),
                             .user = texts.substr(0, userEnd),
                             .password = texts.substr(userEnd + 1)};
  return canBeAsked(question) ? std::optional(question) : std::nullopt;
}

}  // namespace keel
