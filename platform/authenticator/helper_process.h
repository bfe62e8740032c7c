// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace keel {

// Outcome of one request to a helper program.
struct HelperAnswer {
  enum class Outcome : std::uint8_t {
    answered,
    notStarted,  // `detail` is the errno
    ended,  // it exited, or hung up, without an answer; `detail` is the signal that killed it, or 0
    silent,  // no answer until the deadline
  };
  Outcome outcome;
  std::byte answer{};
  int detail = 0;
};

// Runs `program` in its own process, sends it one packet and receives one byte. Blocks until the
// answer or the deadline. From any thread.
//
// The program gets its end of a SOCK_SEQPACKET socket as descriptor 3, /dev/null as 0 to 2, and no
// other descriptors; no arguments but its own path, no environment; default signals, its own
// session. On return it has been killed, together with those of its children still in its process
// group, and reaped.
HelperAnswer askHelper(const std::string& program, std::span<const std::byte> question,
                       std::chrono::milliseconds deadline);

}  // namespace keel
