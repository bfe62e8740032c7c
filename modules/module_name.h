// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

// Names of modules, their bundles and their jobs. The module in keel_mail.bundle has the short name
// "mail".

namespace keel {

// Prefix and suffix of a module's bundle name.
inline constexpr std::string_view kModulePrefix = "keel_";
inline constexpr std::string_view kBundleSuffix = ".bundle";

// Returns true if a bundle of that name is a module. Case-sensitive.
bool isModuleBundle(std::string_view name);

// Returns `name` without its first characters, as many as kModulePrefix has, whatever they are;
// empty if there are no more.
std::string withoutModulePrefix(std::string_view name);

// Returns the short name of the module whose bundle is at `path`: the last component without
// extension and prefix.
std::string shortNameOfBundle(std::string_view path);

// Returns a module's default label and Mach service name: "com.vantor.keeld.mail".
std::string defaultModuleLabel(std::string_view shortName);

}  // namespace keel
