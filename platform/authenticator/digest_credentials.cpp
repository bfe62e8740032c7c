// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_credentials.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace keel {

namespace {

// Calls `take(line)` for each line, without its newline.
template <class Take>
void forEachLine(std::string_view text, Take take) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    take(line);
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
}

std::optional<DigestCredentials::Line> parsed(std::string_view line) {
  const std::size_t first = line.find(':');
  const std::size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  const std::string_view user = line.substr(0, first),
                         realm = line.substr(first + 1, second - first - 1),
                         digest = line.substr(second + 1);
  if (!DigestCredentials::canBeUser(user) || !DigestCredentials::canBeRealm(realm))
    return std::nullopt;
  if (digest.find_first_not_of("0123456789abcdef") != std::string_view::npos) return std::nullopt;
  for (const DigestAlgorithm algorithm : kDigestAlgorithms) {
    if (digest.size() == hexLettersOf(algorithm))
      return DigestCredentials::Line{user, realm, digest, algorithm};
  }
  return std::nullopt;
}

// Writes text into a buffer of sufficient size.
class Writer {
 public:
  explicit Writer(std::size_t sizeBytes) : text_(sizeBytes) {}

  Writer& operator<<(std::string_view text) {
    std::ranges::copy(std::as_bytes(std::span(text)),
                      text_.bytes().begin() + static_cast<std::ptrdiff_t>(size_));
    size_ += text.size();
    return *this;
  }

  Secret take() {
    text_.shrink(size_);
    return std::move(text_);
  }

 private:
  Secret text_;
  std::size_t size_ = 0;
};

}  // namespace

DigestCredentials::DigestCredentials(Secret text) : text_(std::move(text)) {
  std::size_t number = 0;
  forEachLine(text_.text(), [&](std::string_view line) {
    ++number;
    if (line.empty() || line.starts_with('#')) return;
    if (const auto found = parsed(line)) {
      lines_.push_back(*found);
    } else {
      badLines_.push_back(number);
    }
  });
}

Secret DigestCredentials::without(std::string_view user, std::string_view realm) const {
  return with(user, realm, {});
}

Secret DigestCredentials::with(std::string_view user, std::string_view realm,
                               std::span<const Secret> digests) const {
  std::size_t size = text_.text().size() + 1;  // the last line may lack its newline
  for (const Secret& digest : digests)
    size += user.size() + realm.size() + digest.text().size() + 3;
  Writer writer(size);
  forEachLine(text_.text(), [&](std::string_view line) {
    const auto found = parsed(line);
    if (!found || found->user != user || found->realm != realm) writer << line << "\n";
  });
  for (const Secret& digest : digests)
    writer << user << ":" << realm << ":" << digest.text() << "\n";
  return writer.take();
}

bool DigestCredentials::canBeUser(std::string_view user) {
  return canBeRealm(user) && !user.starts_with('#');
}

bool DigestCredentials::canBeRealm(std::string_view realm) {
  return !realm.empty() && std::ranges::none_of(realm, [](unsigned char byte) {
    return byte < 0x20 || byte == 0x7f || byte == ':';
  });
}

}  // namespace keel
