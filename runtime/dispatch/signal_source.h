// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "runtime/dispatch/block.h"

namespace keel {

// Blocks `signal` in the calling thread and in all threads it starts from now on. Call in main
// before any thread exists: only a signal that is blocked everywhere reaches its source, also when
// its disposition is to be ignored.
void blockSignal(int signal);

// Hears of one signal through signalfd(2) and runs a handler for it, on a thread of the source's
// own that belongs to the worker side: it runs whatever the I/O thread and the worker pool are
// doing. Kept for the life of the process.
class SignalSource {
 public:
  // Null when the source cannot be made (no descriptors, no thread). The source is not active
  // before resume().
  static std::unique_ptr<SignalSource> create(int signal);
  SignalSource(const SignalSource&) = delete;
  SignalSource& operator=(const SignalSource&) = delete;
  // Ends the thread; never called in the daemon, which keeps its sources.
  ~SignalSource();

  // Before resume(). Without a handler the signals are taken and nothing happens.
  void setEventHandler(Block handler);
  // Once. Several signals that arrive before the handler ran count as one; what arrived before
  // resume() counts too. Only signals that are sent to the process are heard, not those sent to one
  // of its threads.
  void resume();

 private:
  class Impl;
  explicit SignalSource(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace keel
