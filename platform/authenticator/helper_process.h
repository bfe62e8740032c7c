// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace keel {

// What became of one question to a helper program.
struct HelperAnswer {
  enum class Outcome : std::uint8_t {
    answered,
    notStarted,  // `detail` is the errno
    ended,   // it ended, or hung up, without an answer; `detail` is the signal that ended it, or 0
    silent,  // no answer until the deadline
  };
  Outcome outcome;
  std::byte answer{};
  int detail = 0;
};

// Runs `program` in a process of its own, gives it one packet and takes one byte. Blocks until
// there is an answer, or the deadline. From any thread.
//
// The program has its end of a SOCK_SEQPACKET socket as descriptor 3, /dev/null as 0 to 2, and no
// others; no arguments but its own path, no environment; default signals, a session of its own.
// When this returns it has been killed, with its session's children that did not leave its process
// group, and reaped.
HelperAnswer askHelper(const std::string& program, std::span<const std::byte> question,
                       std::chrono::milliseconds deadline);

}  // namespace keel
