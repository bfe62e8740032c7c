// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/foundation/value.h"

// Frames as prebuilt bytes, so that sending them costs an attacker little more than the system
// call.

namespace keel::siege {

// The selectors of the auth service, by their index in the daemon's list.
enum class AuthMethod : int {
  serviceCheck = 0,
  authenticateForUser = 2,
  defaultRealm = 3,
  digestStart = 5,
  isAuthed = 7
};

enum class Descriptors : std::uint8_t { refused, accepted };

// Smallest id that is encoded in 9 bytes: ids from here on can be replaced in place.
inline constexpr std::uint64_t kFirstWideId = std::uint64_t{1} << 32;
// Stands for 16 hexadecimal digits that are others in each repetition of a block.
inline constexpr std::string_view kUniqueDigits = "################";
// Position of the 8 bytes of such an id in the frame of a request or reply.
inline constexpr std::size_t kWideIdOffset = 4 + 3;

// Stores `value` in 8 bytes, big-endian, as CBOR has it.
void storeWide(char* bytes, std::uint64_t value);
std::uint64_t loadWide(const char* bytes);

// Returns the frame that holds `message`.
std::string frameOf(const Value& message);
// Returns the frame of a hello that exports the delivery method.
std::string helloFrame(Descriptors descriptors = Descriptors::refused);
std::string oneWayFrame(int method, const Value& arguments);
// Returns the frame of a request with a wide id.
std::string requestFrame(int method, const Value& arguments);
// Returns the frame of an update whose item is a memory file of `sizeBytes`.
std::string sealedUpdateFrame(std::uint64_t sizeBytes, const std::string& name);

// Frames that one connection sends again and again. Its requests get greater ids each time.
class RequestBlock {
 public:
  // Appends a request, whose id is wide.
  void request(int method, const Value& arguments) {
    appendRequest(requestFrame(method, arguments));
  }
  void appendRequest(const std::string& frame);
  // Appends a frame without an id.
  void append(const std::string& frame) { bytes_ += frame; }

  // Gives every request its next id, and its kUniqueDigits new digits.
  void renumber();
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
  std::vector<std::size_t> idOffsets_;
  std::vector<std::size_t> digitsOffsets_;
  std::uint64_t nextId_ = kFirstWideId;
};

}  // namespace keel::siege
