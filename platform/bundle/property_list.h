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
// arrays and dictionaries, whose keys keep their order.
//
// Such a file may come from anybody. Reading is strict: what is not exactly a property list is
// refused, with the line or the object where it goes wrong, and so is a dictionary that has a key
// twice. It is bounded in time and memory by the limits below, and never opens or loads anything
// else.

namespace keel {

// A job or a bundle's description takes a few KiB.
inline constexpr std::size_t kPropertyListBytes = 1024 * 1024;
// How deep arrays and dictionaries may nest: text has depth 0, an empty array 1. As on the wire.
inline constexpr std::size_t kPropertyListDepth = 64;
// What the decoded value may take in memory. In the binary form values can share their parts, so
// that a few hundred bytes of file stand for any number of values.
inline constexpr std::size_t kPropertyListValueBytes = 16 * 1024 * 1024;

// The value in `bytes`, or what is wrong with them, for a log.
std::expected<Value, std::string> decodePropertyList(std::span<const std::byte> bytes);

// The value in the file at `path`. Links are followed, but only a regular file is opened. The
// error, in NSPOSIXErrorDomain, has a description that names the file: EBADMSG for what is no
// property list, EFBIG for one that is too large, EINVAL for what is no regular file, else why the
// system could not read it.
std::expected<Value, Error> readPropertyList(const std::string& path);

}  // namespace keel
