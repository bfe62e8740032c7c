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
#include "runtime/wire/shared_run.h"

// The frames of docs/protocol.md: a length of 4 bytes, little-endian, and one CBOR array whose first element says its kind.

namespace keel::xpc {

inline constexpr std::uint64_t kProtocolVersion = 1;
inline constexpr std::size_t kLengthBytes = 4;

// Tag of a value that travels as a sealed memory file: its content is the size in bytes, the file comes with the frame.
inline constexpr std::uint64_t kSealedMemoryTag = 51742;

enum class MessageKind : std::uint8_t {
  hello = 0,    // [0, version, [selector...], {option: value...}]
  request = 1,  // [1, id, method, [argument...]]
  oneWay = 2,   // [2, method, [argument...]]
  reply = 3,    // [3, id, [result...]]
  failure = 4,  // [4, id or null, code, text]
  goodbye = 5,  // [5, text]
};

// Why a message could not be served; the code of a failure.
enum class FailureCode : std::uint8_t {
  undecodable = 1,     // not one well-formed message of a known kind
  unknownMethod = 2,   // no method at that place of the receiver's list
  wrongArguments = 3,  // their number or kinds do not fit the method
  tooLarge = 4,        // the frame is larger than the receiver takes
  badRequestId = 5,    // not greater than the id before
  unanswered = 6,      // the receiver dropped the request without an answer
  unsendable = 7,      // the answer cannot be sent to this peer
  overQuota = 8,       // the sender's user holds too much already
};

// A frame to be sent, in pieces: bytes of its own, and between them larger values that stay where they are. Or several frames
// that travel together, without such values. Reused from message to message, so that building one allocates nothing in the
// steady state.
class OutgoingMessage {
 public:
  struct Splice {
    std::size_t offset;  // in bytes(), where `buffer` goes
    BufferRef buffer;
  };

  OutgoingMessage() = default;
  OutgoingMessage(OutgoingMessage&&) = default;
  OutgoingMessage& operator=(OutgoingMessage&&) = default;

  // Starts anew: forgets everything and leaves room for the length.
  cbor::Writer begin();
  // Starts a further frame behind the finished ones.
  cbor::Writer beginNext();
  // Completes the length. False when the frame would be longer than its length field can say.
  bool finish();

  // For finished frames that go to several connections: their bytes are kept once for all of them. Nothing where there are
  // splices, files, or too many bytes.
  void share();
  const SharedRun& sharedRun() const { return sharedRun_; }

  // Overwrites what stands here; after it only begin() makes sense.
  void wipe();

  // Adds one encoded item, by copy or by reference as its size suggests.
  void item(const BufferRef& encoded);
  // Adds one encoded item as a sealed memory file. False when it cannot be made (no descriptors); nothing is added then.
  bool sealedItem(const BufferRef& encoded);

  cbor::Writer writer() { return cbor::Writer(bytes_); }
  std::span<const std::byte> bytes() const { return bytes_.bytes(); }
  const std::vector<Splice>& splices() const { return splices_; }
  // Buffers whose sealed files travel with the frame.
  const std::vector<BufferRef>& files() const { return files_; }
  // The length on the wire, length fields included.
  std::size_t wireBytes() const { return bytes_.size() + splicedBytes_; }

 private:
  ByteSink bytes_;
  std::vector<Splice> splices_;
  std::vector<BufferRef> files_;
  std::size_t splicedBytes_ = 0;
  std::size_t frameBegin_ = 0;  // in bytes(), of the last frame
  SharedRun sharedRun_;
};

// The first elements of a message, as far as they can be read from the beginning of a frame: enough to answer a request whose
// frame is not taken.
struct Envelope {
  MessageKind kind;
  std::optional<std::uint64_t> requestId;
};
std::optional<Envelope> peekEnvelope(std::span<const std::byte> beginningOfFrame);

// Returns true if `items` are exactly `count` arguments that keep the rules for values, whatever their method wants.
bool areWellFormedArguments(std::span<const std::byte> items, std::uint64_t count);

// Counts the arguments or results of a message that travel as sealed memory files, up to the first that cannot be read.
std::size_t countSealedArguments(std::span<const std::byte> frame);

void writeFailure(OutgoingMessage& message, std::optional<std::uint64_t> requestId, FailureCode code, std::string_view text);
void writeGoodbye(OutgoingMessage& message, std::string_view text);

}  // namespace keel::xpc
