// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/linger.h"

#include <memory>

#include "runtime/transport/foreign_descriptors.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

class Lingering final : public std::enable_shared_from_this<Lingering>, private Reactor::Watcher {
 public:
  Lingering(FileDescriptor socket, std::unique_ptr<OutputQueue> output, Admission admission,
            const void* owner, Reactor& reactor)
      : socket_(std::move(socket)),
        output_(std::move(output)),
        admission_(std::move(admission)),
        owner_(owner),
        reactor_(reactor) {}

  void begin() {
    reactor_.watch(socket_.get(), EPOLLOUT, *this);
    deadline_ = reactor_.after(limits::kLinger, [self = shared_from_this()] { self->end(); });
  }

 private:
  void onReady(std::uint32_t events) override {
    const auto self = shared_from_this();
    const bool gone = (events & (EPOLLERR | EPOLLHUP)) != 0;
    if (gone || !output_->flush(socket_.get()) || output_->empty()) end();
  }

  void end() {
    if (!socket_) return;
    reactor_.unwatch(socket_.get(), *this);
    closeInBackground(std::move(socket_), std::move(admission_), owner_);
    reactor_.cancel(deadline_);
  }

  FileDescriptor socket_;
  std::unique_ptr<OutputQueue> output_;
  Admission admission_;
  const void* const owner_;
  Reactor& reactor_;
  Reactor::TimerId deadline_ = 0;
};

}  // namespace

void lingerAndClose(FileDescriptor socket, std::unique_ptr<OutputQueue> output, Admission admission,
                    const void* owner, Reactor& reactor) {
  const bool more = output && output->flush(socket.get()) && !output->empty();
  if (!more) return closeInBackground(std::move(socket), std::move(admission), owner);
  std::make_shared<Lingering>(std::move(socket), std::move(output), std::move(admission), owner,
                              reactor)
      ->begin();
}

}  // namespace keel::xpc
