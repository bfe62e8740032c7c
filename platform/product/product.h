// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "runtime/foundation/string.h"

// Constants of the product Calder: version, names, paths and error codes.

namespace keel {

// Returns the product's build version.
String TBCopyCalderBuildVersion();

inline constexpr std::string_view KLNErrorDomain = "KLNErrorDomain";

// Codes of KLNErrorDomain.
inline constexpr int errAuthFailed = 5;  // password, or answer to a challenge, rejected
inline constexpr int errAuthIDNotFound =
    6;  // no challenge in progress under that ID on this connection
inline constexpr int errPublisherDisconnected = 8;  // the publisher's connection went away
inline constexpr int errDuplicate =
    9;  // already published, or already subscribed from this connection
inline constexpr int errNotOwner = 10;  // another connection publishes it, or it is reserved
inline constexpr int errNotFound = 11;  // no item of that name, or not published by this connection
inline constexpr int errNilName = 12;   // a required name was missing
inline constexpr int errRequestFailed =
    13;  // null argument, null result, or an exception while serving
inline constexpr int errNotAdmin =
    14;  // credentials good, but the user is not in the group "admin"

// The right that an authorization reference must carry.
inline constexpr const char* kManageDaemonsRight = "com.vantor.ServiceManagement.daemons.modify";

inline constexpr const char* kNotifyServiceName = "com.vantor.keeld.notify";
inline constexpr const char* kAuthServiceName = "com.vantor.keeld.auth";
inline constexpr const char* kLockDirectory = "/private/var/keeld";
// The program that hosts a module.
inline constexpr const char* kModuleProgram =
    "/Applications/Calder.app/Contents/CalderRoot/System/Library/CoreServices/KeelDaemon.bundle/"
    "Contents/MacOS/keeld";
inline constexpr const char* kBundlesDirectory =
    "/Applications/Calder.app/Contents/CalderRoot/usr/share/keeld/bundles/";

}  // namespace keel
