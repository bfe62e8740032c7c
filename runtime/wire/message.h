// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/foundation/buffer.h"
#include "runtime/foundation/cbor_cursor.h"
#include "runtime/foundation/cbor_writer.h"

// The frames of docs/protocol.md: a length of 4 bytes, little-endian, and one CBOR array whose
// first element is its kind.

namespace keel::xpc {

inline constexpr std::uint64_t kProtocolVersion = 1;
inline constexpr std::size_t kLengthBytes = 4;

// Tag of a value that travels as a sealed memory file: its content is the size in bytes, the file
// accompanies the frame.
inline constexpr std::uint64_t kSealedMemoryTag = 51742;

enum class MessageKind : std::uint8_t {
  hello = 0,    // [0, version, [selector...], {option: value...}]
  request = 1,  // [1, id, method, [argument...]]
  oneWay = 2,   // [2, method, [argument...]]
  reply = 3,    // [3, id, [result...]]
  failure = 4,  // [4, id or null, code, text]
  goodbye = 5,  // [5, text]
};

// The code of a failure: the reason for which a message was not served.
enum class FailureCode : std::uint8_t {
  undecodable = 1,     // not one well-formed message of a known kind
  unknownMethod = 2,   // no method of that index in the receiver's list
  wrongArguments = 3,  // their number or kinds do not fit the method
  tooLarge = 4,        // the frame is larger than the receiver takes
  badRequestId = 5,    // not greater than the previous id
  unanswered = 6,      // the receiver dropped the request unanswered
  unsendable = 7,      // the answer cannot be sent to this peer
  overQuota = 8,       // the sender's user is over its quota
};

// Encodes one frame, or several that are queued at once: as bytes, and as references to larger
// values, which are spliced in. Reused, so the steady state allocates nothing.
class OutgoingMessage {
 public:
  struct Splice {
    std::size_t offset;  // in bytes(), where `buffer` is inserted
    BufferRef buffer;
  };

  OutgoingMessage() = default;
  OutgoingMessage(OutgoingMessage&&) = default;
  OutgoingMessage& operator=(OutgoingMessage&&) = default;

  // Clears the contents, keeps the capacity.
  void clear();
  // Starts over with the first frame.
  cbor::Writer begin() {
    clear();
    return beginNext();
  }
  // Starts a further frame after the finished ones.
  cbor::Writer beginNext();
  // Completes the length. Returns false if the frame is longer than any peer accepts.
  bool finish();

  // Moves the bytes of finished frames into a buffer that the output queues of several receivers
  // share. No effect on frames that refer to larger values or files.
  void share();

  // Overwrites its bytes; only begin() may follow.
  void wipe();

  // Adds one encoded item, by copy or by reference as its size suggests.
  void item(const BufferRef& encoded);
  // Adds one encoded item as a sealed memory file. Returns false, adding nothing, if the file
  // cannot be created (no descriptors).
  bool sealedItem(const BufferRef& encoded);

  cbor::Writer writer() { return cbor::Writer(bytes_); }
  std::span<const std::byte> bytes() const { return bytes_.bytes(); }
  const std::vector<Splice>& splices() const { return splices_; }
  // Returns the buffers whose sealed files travel with the frame.
  const std::vector<BufferRef>& files() const { return files_; }
  // Returns the length on the wire, length fields included.
  std::size_t wireBytes() const { return bytes_.size() + splicedBytes_; }
  // Returns the allocated capacity.
  std::size_t capacityBytes() const { return bytes_.capacity(); }

 private:
  ByteSink bytes_;
  std::vector<Splice> splices_;
  std::vector<BufferRef> files_;
  std::size_t splicedBytes_ = 0;
  // Start of the last frame, in bytes() and on the wire.
  std::size_t frameBegin_ = 0;
  std::size_t frameBeginOnWire_ = 0;
};

// Holds the first elements of a message, as far as the beginning of its frame reveals them: enough
// to answer a request whose frame is skipped.
struct Envelope {
  MessageKind kind;
  std::optional<std::uint64_t> requestId;
};
std::optional<Envelope> peekEnvelope(std::span<const std::byte> beginningOfFrame);

// Returns true if `items` are exactly `count` arguments that obey the rules for values, whatever
// their method expects.
bool areWellFormedArguments(std::span<const std::byte> items, std::uint64_t count);

// Moves to the first argument or result of a message. Returns their number, or nothing if the
// message has none.
std::optional<std::uint64_t> skipToArguments(cbor::Cursor& cursor);
// Moves past an argument that travels as a sealed memory file. Returns its size in bytes, or
// nothing, without moving, if the next argument is none.
std::optional<std::uint64_t> skipSealedArgument(cbor::Cursor& cursor);

// Counts the arguments or results of a message that travel as sealed memory files, up to the first
// that cannot be read.
std::size_t countSealedArguments(std::span<const std::byte> frame);

void writeFailure(OutgoingMessage& message, std::optional<std::uint64_t> requestId,
                  FailureCode code, std::string_view text);
void writeGoodbye(OutgoingMessage& message, std::string_view text);

}  // namespace keel::xpc
