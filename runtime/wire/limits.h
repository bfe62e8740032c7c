// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// Every limit of the transport, with its reason. docs/protocol.md repeats those that a client must
// know.

namespace keel::xpc::limits {

// A frame that a peer may send. Larger ones are skipped unread. Bounds what one message can make us
// hold; larger values than this have no business in a notification.
inline constexpr std::size_t kFrameBytes = 16u << 20;

// A frame that a client accepts from the daemon, whose dumps may be larger than any request.
inline constexpr std::size_t kFrameBytesFromDaemon = 1u << 30;

// Nesting of values. Deep enough for any sensible data, shallow enough for every recursive decoder
// of our clients.
inline constexpr std::size_t kDepth = 64;
// Arrays may be nested deeper by this much: a dump wraps published values in two more levels.
inline constexpr std::size_t kArrayWrapping = 2;

// What one user other than root may hold in the daemon: published data, and names with what is
// built around each. It stays held after its connections have ended, since items do. Above it, data
// is refused; names are refused above one and a half times it.
inline constexpr std::size_t kMemoryOfOneUserBytes = 256u << 20;
// The share of the machine's memory that all of them may hold: who has many user ids does not get
// it all either. One may hold as much as is still free.
inline constexpr double kMemoryShareOfUsers = 0.25;
// What a name is charged beyond its own bytes: about what an item, a subscription and their places
// in the tables take.
inline constexpr std::uint32_t kRecordBytes = 640;

// Bytes that a connection may send before its hello is complete. A hello is a few hundred bytes.
inline constexpr std::size_t kHelloBytes = 64u << 10;

// Requests of one connection that wait for their answer; above it the connection is not read until
// half are answered.
inline constexpr std::size_t kUnansweredRequests = 8192;

// What a message that waits on its connection's queue is charged beyond its own bytes: about what
// its place there takes.
inline constexpr std::uint32_t kQueuedMessageBytes = 256;

// Bytes that may wait for a slow reader before its connection is invalidated.
inline constexpr std::size_t kWaitingBytes = 64u << 20;
// What slow readers may make the daemon hold all together, copies and superseded values. Beyond,
// whoever lets most wait goes first.
inline constexpr std::size_t kTotalWaitingBytes = 512u << 20;

// Bytes waiting for a connection above which its own requests are not read: who does not take
// answers gets no more work done.
inline constexpr std::size_t kPauseReadingBytes = 1u << 20;

// How long the goodbye to an invalidated connection, and what stood before it, may take to leave.
inline constexpr std::chrono::seconds kLinger{5};

// Values of at least this size travel as a sealed memory file where the peer takes descriptors.
// Below it the system calls for the file cost more than the copy.
inline constexpr std::size_t kSealedMemoryBytes = 64u << 10;

// Values of at least this size are sent from where they lie; smaller ones are copied behind one
// another.
inline constexpr std::size_t kSharedPieceBytes = 4u << 10;

// Messages of at least this size that go to several connections are encoded into one buffer, to
// which all refer; smaller ones are copied for each, which costs less than referring to them.
inline constexpr std::size_t kSharedMessageBytes = 2u << 10;

// What one client sends in a row for one name is delivered together up to this size.
inline constexpr std::size_t kBatchBytes = 32u << 10;

// Descriptors that one message may carry. In practice it is one.
inline constexpr std::size_t kDescriptorsPerMessage = 8;
// Descriptors that can come with one read: what the kernel allows in one message (SCM_MAX_FD).
// There is room for all of them, since the kernel closes what finds none, on the thread that reads
// (see foreign_descriptors.h).
inline constexpr std::size_t kDescriptorsPerRead = 253;
// Received descriptors, of all connections together, whose message has not come whole. Beyond, who
// holds most goes first.
inline constexpr std::size_t kUnclaimedDescriptors = 64;
// Contents of sealed memory files that a peer may have been sent and not have read. Beyond, values
// travel inline, and count as waiting bytes do.
inline constexpr std::size_t kUnreadSealedBytes = 64u << 20;
// Sealed memory files that are kept as such; values beyond are copied, so that they cannot use up
// the descriptor table.
inline constexpr std::size_t kSealedFiles = 512;

// Connections of this process, as far as its descriptors suffice. More clients than any one machine
// has processes.
inline constexpr std::size_t kConnections = 1u << 20;

// Connections accepted in a row before others get their turn.
inline constexpr int kAcceptsPerTurn = 64;

// Descriptors that are kept back for the daemon's own needs (journal, memory files, supervisor,
// helpers).
inline constexpr std::size_t kReservedDescriptors = 256 + kSealedFiles;

// The share of all connections that users other than root may hold: root can always see what is
// going on. One of them may hold as many as are still free, so no single one locks the others out.
inline constexpr double kConnectionShareOfUsers = 0.875;
// How long sending pauses when the system has no room for more descriptors on their way, or no
// memory.
inline constexpr std::chrono::milliseconds kSendPause{100};

// How long accepting pauses when descriptors or memory ran out.
inline constexpr std::chrono::milliseconds kAcceptPause{100};

}  // namespace keel::xpc::limits
