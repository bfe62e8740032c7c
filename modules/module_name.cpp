// SPDX-License-Identifier: Apache-2.0
#include "modules/module_name.h"

namespace keel {

bool isModuleBundle(std::string_view name) {
  return name.starts_with(kModulePrefix) && name.ends_with(kBundleSuffix);
}

std::string withoutModulePrefix(std::string_view name) {
  std::size_t characterCount = 0, at = 0;
  for (; at < name.size(); ++at) {
    const bool begins = (static_cast<unsigned char>(name[at]) & 0xc0U) != 0x80U;
    if (begins && characterCount++ == kModulePrefix.size()) break;
  }
  return std::string(name.substr(at));
}

std::string shortNameOfBundle(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  std::string_view name = path.substr(path.rfind('/') + 1);
  // A leading dot does not begin an extension.
  if (const std::size_t dot = name.rfind('.'); dot != name.npos && dot > 0)
    name = name.substr(0, dot);
  return withoutModulePrefix(name);
}

std::string defaultModuleLabel(std::string_view shortName) {
  return "com.vantor.keeld." + std::string(shortName);
}

}  // namespace keel
