// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "runtime/dispatch/current_user.h"
#include "runtime/logging/logger.h"
#include "runtime/transport/admissions.h"
#include "runtime/transport/frame_stream.h"
#include "runtime/transport/linger.h"
#include "runtime/transport/service_socket.h"
#include "runtime/transport/user_account.h"
#include "runtime/wire/limits.h"
#include "runtime/xpc/listener.h"

namespace keel::xpc {

namespace {

Logger& logger() {
  static Logger& runtime = _loggerForCategory("runtime");
  return runtime;
}

bool isShortage(int problem) {
  return problem == EMFILE || problem == ENFILE || problem == ENOBUFS || problem == ENOMEM;
}

// Sends a goodbye with the reason to a client that is refused.
void turnAway(FileDescriptor socket, const std::string& why, const void* owner,
              TransportContext& context) {
  const MessagePool::Borrowed goodbye = context.messages().borrow();
  writeGoodbye(*goodbye, why);
  auto output = context.outputQueues().take();
  output->append(*goodbye);
  lingerAndClose(std::move(socket), std::move(output), /*admission=*/{}, owner, context.reactor());
}

}  // namespace

std::expected<std::shared_ptr<Listener>, Error> Listener::initWithMachServiceName(
    const std::string& name, TransportContext& context) {
  return inDirectory(kServiceDirectory, name, context);
}

std::expected<std::shared_ptr<Listener>, Error> Listener::inDirectory(const std::string& directory,
                                                                      const std::string& name,
                                                                      TransportContext& context) {
  auto service = listenForService(directory, name);
  if (!service) return std::unexpected(service.error());
  return std::shared_ptr<Listener>(new Listener(std::move(service->path),
                                                std::move(service->descriptor), service->ownsPath,
                                                context, Admissions::ofProcess()));
}

Listener::Listener(std::string path, FileDescriptor socket, bool ownsPath,
                   TransportContext& context, Admissions& admissions)
    : path_(std::move(path)),
      ownsPath_(ownsPath),
      context_(context),
      socket_(std::move(socket)),
      admissions_(admissions) {}

Listener::~Listener() {
  close();
}

void Listener::perform(Block block) {
  if (context_.reactor().isCurrent()) return block();
  context_.reactor().post(std::move(block));
}

void Listener::setDelegate(std::shared_ptr<ListenerDelegate> delegate) {
  perform([self = shared_from_this(), delegate = std::move(delegate)]() mutable {
    self->delegate_ = std::move(delegate);
  });
}

void Listener::resume() {
  perform([self = shared_from_this()] {
    if (!self->socket_ || !self->suspended_) return;
    self->suspended_ = false;
    if (self->pause_ == 0) self->context_.reactor().watch(self->socket_.get(), EPOLLIN, *self);
  });
}

void Listener::suspend() {
  perform([self = shared_from_this()] { self->stopWatching(); });
}

void Listener::invalidate() {
  // Removed immediately, so that a process that exits right after leaves no path behind.
  removePath();
  perform([self = shared_from_this()] { self->close(); });
}

void Listener::stopWatching() {
  if (suspended_) return;
  suspended_ = true;
  if (pause_ == 0) {
    context_.reactor().unwatch(socket_.get(), *this);
  } else {
    context_.reactor().cancel(std::exchange(pause_, 0));
  }
}

void Listener::close() {
  if (!socket_) return;
  stopWatching();
  removePath();
  socket_.reset();
  delegate_.reset();
}

void Listener::removePath() {
  if (ownsPath_.exchange(false)) ::unlink(path_.c_str());
}

void Listener::onReady(std::uint32_t) {
  const auto self = shared_from_this();
  for (int i = 0; i < limits::kAcceptsPerTurn && !suspended_ && pause_ == 0; ++i) {
    if (!acceptOne()) return;
  }
}

bool Listener::acceptOne() {
  if (admissions_.full()) {
    pauseAccepting("there are as many connections as descriptors allow");
    return false;
  }
  FileDescriptor socket(::accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!socket) {
    if (isShortage(errno)) pauseAccepting(std::strerror(errno));
    return errno == EINTR || errno == ECONNABORTED;
  }
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return true;
  const WorkingFor acceptedFor(credentials.uid);
  UserAccount& user = UserAccount::of(credentials.uid);
  FrameStream::Terms terms{
      .frameLimitBytes = limits::kFrameBytes, .quota = &user.quota, .share = &user.share};
  if (!admit(credentials.uid, socket, terms)) return true;
  // The rest is expensive, so it is done when the peer's user is next served.
  Block identify = [self = shared_from_this(), uid = credentials.uid, &user,
                    held = std::move(socket), moved = std::move(terms)]() mutable {
    const WorkingFor identifiedFor(uid);
    self->identify(std::move(held), std::move(moved), user);
  };
  context_.reactor().post(user.share, std::move(identify));
  return true;
}

void Listener::identify(FileDescriptor socket, FrameStream::Terms terms, UserAccount& user) {
  if (!socket_) return;
  auto peer = PeerIdentity::ofSocket(socket.get());
  if (!peer) return turnAwayUnidentified(std::move(socket), peer.error());
  connect(std::move(socket), std::move(*peer), std::move(terms), user);
}

void Listener::turnAwayUnidentified(FileDescriptor socket, std::error_code why) {
  if (!isShortage(why.value())) {
    logger().debug("a connection to {} was dropped: its process has ended ({})", path_,
                   why.message());
    return;
  }
  turnAway(std::move(socket), "the daemon is short of resources; try again", /*owner=*/nullptr,
           context_);
  if (!suspended_ && pause_ == 0) pauseAccepting(std::strerror(why.value()));
}

// Takes the socket only to refuse it.
bool Listener::admit(uid_t uid, FileDescriptor& socket, FrameStream::Terms& terms) {
  const auto refusal = admissions_.admit(uid, terms.admission);
  if (refusal == Admissions::Refusal::none) {
    if (admissions_.hasRoom()) pauseLogged_ = refusalLogged_ = false;
    return true;
  }
  const std::string why = refusal == Admissions::Refusal::tooManyOfUser
                              ? fmt::format("too many connections of uid {}", uid)
                              : std::string("too many connections");
  if (!std::exchange(refusalLogged_, true)) {
    logger().error("{}: {}; new ones are turned away", path_, why);
  }
  turnAway(std::move(socket), why, terms.quota->account, context_);
  return false;
}

void Listener::connect(FileDescriptor socket, PeerIdentity peer, FrameStream::Terms terms,
                       UserAccount& user) {
  Connection::Options options;
  options.quota = terms.quota;
  options.checks = user.checks;
  options.heavyRequests = heavyRequests_;
  auto stream = std::make_unique<FrameStream>(std::move(socket), context_, std::move(terms));
  const auto connection = Connection::create(std::move(peer), std::move(stream), options);
  // A connection that the delegate did not resume ends here with its last reference.
  const auto delegate = delegate_;
  if (delegate) delegate->listenerShouldAcceptNewConnection(*this, connection);
}

void Listener::pauseAccepting(const char* why) {
  const WorkingFor nobody(std::nullopt);  // The peer has not caused the shortage.
  if (!std::exchange(pauseLogged_, true)) {
    logger().error("no more connections are accepted at {} for now: {}", path_, why);
  }
  context_.reactor().unwatch(socket_.get(), *this);
  pause_ = context_.reactor().after(limits::kAcceptPause, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->pause_ == 0) return;
    self->pause_ = 0;
    if (!self->suspended_) self->context_.reactor().watch(self->socket_.get(), EPOLLIN, *self);
  });
}

}  // namespace keel::xpc
