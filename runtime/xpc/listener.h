// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <expected>
#include <memory>
#include <string>

#include "runtime/dispatch/reactor.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/transport/admissions.h"
#include "runtime/transport/frame_stream.h"
#include "runtime/xpc/connection.h"

namespace keel::xpc {

class Listener;
struct UserAccount;

// Decides on each new connection and configures it. Called on the I/O thread.
class ListenerDelegate {
 public:
  virtual ~ListenerDelegate() = default;
  // Returns true to keep the connection, which must then have been resumed; false drops it.
  virtual bool listenerShouldAcceptNewConnection(Listener& listener,
                                                 const std::shared_ptr<Connection>& connection) = 0;
};

// Accepts connections to one named service. The socket comes from the service manager when it
// passed one under that name (sd_listen_fds_with_names(3)), else the listener binds DIRECTORY/NAME,
// mode 0666, and removes it when invalidated.
class Listener final : private Reactor::Watcher, public std::enable_shared_from_this<Listener> {
 public:
  // Fails with a POSIX error whose description names the path and what to do; for example
  // EADDRINUSE when another process serves that name. The delegate is borrowed. The context is
  // borrowed and outlives the listener.
  static std::expected<std::shared_ptr<Listener>, Error> initWithMachServiceName(
      const std::string& name, TransportContext& context);
  // Like initWithMachServiceName(), in another directory; for tests.
  static std::expected<std::shared_ptr<Listener>, Error> inDirectory(const std::string& directory,
                                                                     const std::string& name,
                                                                     TransportContext& context);
  ~Listener();

  // May be called from any thread; calls from others take effect on the reactor's thread, in order.
  // A listener begins suspended.
  void setDelegate(std::shared_ptr<ListenerDelegate> delegate);
  void resume();
  // Stops accepting: connections wait in the socket's backlog.
  void suspend();
  // Closes the socket. Accepted connections stay.
  void invalidate();

 private:
  Listener(std::string path, FileDescriptor socket, bool ownsPath, TransportContext& context,
           Admissions& admissions);

  void onReady(std::uint32_t events) override;
  // Returns false if there is nothing more to accept now.
  bool acceptOne();
  bool admit(uid_t uid, FileDescriptor& socket, FrameStream::Terms& terms);
  void identify(FileDescriptor socket, FrameStream::Terms terms, UserAccount& user);
  void turnAwayUnidentified(FileDescriptor socket, std::error_code why);
  void connect(FileDescriptor socket, PeerIdentity peer, FrameStream::Terms terms,
               UserAccount& user);
  void pauseAccepting(const char* why);
  void stopWatching();
  void close();
  void removePath();
  void perform(Block block);

  const std::string path_;
  std::atomic<bool> ownsPath_;
  TransportContext& context_;
  FileDescriptor socket_;
  std::shared_ptr<ListenerDelegate> delegate_;
  Admissions& admissions_;
  const std::shared_ptr<HeavyRequestQueue> heavyRequests_ = std::make_shared<HeavyRequestQueue>();
  bool suspended_ = true;
  bool pauseLogged_ = false;
  bool refusalLogged_ = false;
  Reactor::TimerId pause_ = 0;  // 0: not paused
};

}  // namespace keel::xpc
