// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list.h"

#include <fmt/format.h>

#include <cerrno>

#include "platform/bundle/property_list_forms.h"
#include "platform/bundle/regular_file.h"

namespace keel {

std::expected<Value, std::string> decodePropertyList(std::span<const std::byte> bytes) {
  if (bytes.size() > kPropertyListBytes)
    return std::unexpected(fmt::format("more than {} bytes", kPropertyListBytes));
  return looksLikeBinaryPropertyList(bytes) ? decodeBinaryPropertyList(bytes)
                                            : decodeXmlPropertyList(bytes);
}

std::expected<Value, Error> readPropertyList(const std::string& path) {
  const auto bytes = readRegularFile(path, kPropertyListBytes);
  if (!bytes) return std::unexpected(bytes.error());
  auto value = decodePropertyList(*bytes);
  if (!value) {
    return std::unexpected(
        describedError(NSPOSIXErrorDomain, EBADMSG,
                       fmt::format("{} is no property list: {}", path, value.error())));
  }
  return std::move(*value);
}

}  // namespace keel
