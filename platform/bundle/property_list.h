// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <span>
#include <string>

#include "runtime/foundation/error.h"
#include "runtime/foundation/value.h"

// Property lists: files that hold one value, as XML or in the binary form that begins with
// "bplist00". Kinds are text, data, dates, integers from -2^63 to 2^64-1, real numbers, booleans,
// arrays and dictionaries. Dictionaries keep the order of their keys.
//
// The files are not trusted. Reading is strict: anything that is not exactly a property list is
// refused with the offending line or object, and so is a dictionary with a duplicate key. Time and
// memory are bounded by the limits below, and nothing else is ever opened or loaded.

namespace keel {

// Upper bound of a file; a job or a bundle's description takes a few KiB.
inline constexpr std::size_t kPropertyListBytes = 1024 * 1024;
// Maximum nesting of arrays and dictionaries: text has depth 0, an empty array 1. As on the wire.
inline constexpr std::size_t kPropertyListDepth = 64;
// Upper bound of the decoded value in memory. The binary form can share values, so that a few
// hundred bytes of file expand to any number of values.
inline constexpr std::size_t kPropertyListValueBytes = 16 * 1024 * 1024;

// Decodes `bytes`. The error describes the problem, for a log.
std::expected<Value, std::string> decodePropertyList(std::span<const std::byte> bytes);

// Reads the file at `path`. Follows links, but opens only a regular file. The error, in
// NSPOSIXErrorDomain, has a description that names the file: EBADMSG if it is no property list,
// EFBIG if too large, EINVAL if not a regular file, else the errno of the failed read.
std::expected<Value, Error> readPropertyList(const std::string& path);

}  // namespace keel
