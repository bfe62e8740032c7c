// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// Every limit of the transport, with its reason. docs/protocol.md repeats those that matter to
// clients.

namespace keel::xpc::limits {

// Largest frame that a peer may send; larger ones are skipped unread. Bounds the memory that one
// message can take; larger values do not belong in a notification.
inline constexpr std::size_t kFrameBytes = 16u << 20;

// Largest frame that a client accepts from the daemon, whose dumps may exceed any request.
inline constexpr std::size_t kFrameBytesFromDaemon = 1u << 30;

// Nesting of values: deep enough for any sensible data, shallow enough for the recursive decoders
// of clients.
inline constexpr std::size_t kDepth = 64;
// Additional nesting of arrays: a dump wraps published values in two more levels.
inline constexpr std::size_t kArrayWrapping = 2;

// Budget of all that clients make the daemon hold: published data and names, which outlive their
// connections, backlogs, unread files, incomplete and waiting messages, challenges. It is smaller
// where a quarter of the memory that the process may use is less. Every user is granted what is
// still free, so one alone gets half of it; root gets what the others leave. Data is refused beyond
// the grant, names beyond 17/16 of it.
inline constexpr std::size_t kClientMemoryBytes = 1u << 30;
inline constexpr std::size_t kClientMemoryDivisor = 4;
// Charged for each name on top of its bytes: about the size of an item, a subscription and their
// table entries.
inline constexpr std::uint32_t kRecordBytes = 640;

// Bytes that a connection may send before its hello is complete. A hello has a few hundred.
inline constexpr std::size_t kHelloBytes = 64u << 10;

// Unanswered requests of one connection; beyond it the connection is not read until half are
// answered.
inline constexpr std::size_t kUnansweredRequests = 8192;

// Charged for each message queued by a connection on top of its bytes: about the size of its queue
// entry.
inline constexpr std::uint32_t kQueuedMessageBytes = 256;

// Backlog of a slow reader before its connection is invalidated.
inline constexpr std::size_t kWaitingBytes = 64u << 20;
// Memory that all slow readers may pin: copies and superseded values. Beyond it, the largest
// backlog is dropped first.
inline constexpr std::size_t kTotalWaitingBytes = 512u << 20;

// Backlog of a connection beyond which its own requests are not read: back-pressure on a client
// that does not take its answers.
inline constexpr std::size_t kPauseReadingBytes = 1u << 20;

// A generous estimate of what a connection and its objects take, handlers and challenges included.
inline constexpr std::size_t kConnectionBytes = 64u << 10;

// How long a peer may leave unread what it was sent, if more waits, before its connection ends.
inline constexpr std::uint8_t kStallSeconds = 60;

// A message of up to this size may wait for its rest even if its user is over quota.
inline constexpr std::size_t kSmallMessageBytes = 4u << 10;

// How long an invalidated connection lingers to send its backlog and the goodbye.
inline constexpr std::chrono::seconds kLinger{5};

// Values of at least this size travel as a sealed memory file if the peer takes descriptors. Below
// it the system calls for the file cost more than the copy.
inline constexpr std::size_t kSealedMemoryBytes = 64u << 10;

// Values of at least this size are sent from where they are; smaller ones are copied into the
// output.
inline constexpr std::size_t kSharedPieceBytes = 4u << 10;

// Fan-out messages of at least this size are moved into one shared buffer for the second receiver;
// smaller ones are copied, which is cheaper as long as the receivers' output queues stay in the
// cache: up to this number of receivers.
inline constexpr std::size_t kSharedMessageBytes = 2u << 10;
inline constexpr std::size_t kReceiversOfCopies = 64;

// Messages of up to this size are checked on the I/O thread, in about 0.1 ms at most; larger ones,
// and memory files, on a thread of the pool.
inline constexpr std::size_t kCheckedInPlaceBytes = 64u << 10;

// Consecutive updates of one name are delivered as one batch up to this size.
inline constexpr std::size_t kBatchBytes = 32u << 10;

// Descriptors per message. In practice there is one.
inline constexpr std::size_t kDescriptorsPerMessage = 8;
// Descriptors per read: the kernel's maximum for one message (SCM_MAX_FD). There must be room for
// all of them, since the kernel closes those that find none, on the thread that reads (see
// foreign_descriptors.h).
inline constexpr std::size_t kDescriptorsPerRead = 253;
// Received descriptors of all connections whose message is still incomplete. Beyond it, the largest
// holder is dropped first.
inline constexpr std::size_t kUnclaimedDescriptors = 64;
// Contents of sealed memory files sent to a peer and not yet read. Beyond it, values travel inline
// and count as backlog.
inline constexpr std::size_t kUnreadSealedBytes = 64u << 20;
// Sealed memory files that are kept as such; further values are copied, so that they cannot exhaust
// the descriptor table.
inline constexpr std::size_t kSealedFiles = 512;

// Connections of this process, as far as its descriptors suffice: more than any one machine has
// processes.
inline constexpr std::size_t kConnections = 1u << 20;

// Connections accepted per turn, so that a rush of them starves nobody.
inline constexpr int kAcceptsPerTurn = 16;

// Descriptors reserved for the daemon's own needs (journal, memory files, supervisor, helpers).
inline constexpr std::size_t kReservedDescriptors = 256 + kSealedFiles;

// Share of all connections for users other than root, so that root can always connect. Each of them
// is granted at most as many as are still free, so no single user locks the others out.
inline constexpr double kConnectionShareOfUsers = 0.875;
// How long sending pauses when the system is out of memory or has too many descriptors in flight.
inline constexpr std::chrono::milliseconds kSendPause{100};

// How long accepting pauses when descriptors or memory have run out.
inline constexpr std::chrono::milliseconds kAcceptPause{100};

}  // namespace keel::xpc::limits
