// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

// How modules and what belongs to them are called. The module in keel_mail.bundle has the short
// name "mail".

namespace keel {

// What the name of a module's bundle begins and ends with.
inline constexpr std::string_view kModulePrefix = "keel_";
inline constexpr std::string_view kBundleSuffix = ".bundle";

// Whether a bundle of that name is a module. Letters count as they are.
bool isModuleBundle(std::string_view name);

// `name` without as many characters as kModulePrefix has, whichever they are; empty when it has no
// more.
std::string withoutModulePrefix(std::string_view name);

// The short name of the module whose bundle is at `path`: its last part, without its extension and
// without the prefix.
std::string shortNameOfBundle(std::string_view path);

// "com.vantor.keeld.mail": a module's label and Mach service name unless its bundle says otherwise.
std::string defaultModuleLabel(std::string_view shortName);

}  // namespace keel
