// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/dispatch/block.h"

namespace keel {

// Blocks `signal` in the calling thread and in all threads that it starts from now on. Call it in
// main before any thread exists: a signal reaches its source only if it is blocked everywhere, even
// when its disposition is to be ignored.
void blockSignal(int signal);

// Receives one signal through signalfd(2) and runs a handler for it on a thread of its own,
// whatever the I/O thread and the worker pool are doing. Kept for the life of the process.
class SignalSource {
 public:
  // Returns null when the source cannot be created (no descriptors, no thread). The source is
  // inactive until resume().
  static std::unique_ptr<SignalSource> create(int signal);
  SignalSource(const SignalSource&) = delete;
  SignalSource& operator=(const SignalSource&) = delete;
  // Stops the thread; the daemon never calls it, since it keeps its sources.
  ~SignalSource();

  // Call before resume(). Without a handler the signals are consumed and nothing else happens.
  void setEventHandler(Block handler);
  // Call once. Signals that arrive before the handler ran are coalesced, those before resume()
  // included. Only signals sent to the process are received, not those sent to one of its threads.
  void resume();

 private:
  class Impl;
  explicit SignalSource(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace keel
