// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "client/client_error.h"
#include "runtime/xpc/connection.h"

namespace keel {

// Identity of a module's client at the moment of connecting.
struct ModulePeer {
  pid_t processIdentifier = -1;
  uid_t effectiveUserIdentifier = 0;
  std::int32_t auditSessionIdentifier = -1;
};

struct ModuleListenerOptions {
  // Directory of the service's socket if the service manager passed none; empty for the default,
  // /run/keeld.
  std::string serviceDirectory = {};
  // Time without clients and work after which runUntilIdle() returns.
  std::chrono::milliseconds idleTime{10'000};
};

// A module's own Mach service: exports an object to every client that connects, as keeld's services
// do, and detects when the module may exit. The service manager passes the socket under that name
// (sd_listen_fds(3)) and keeps it when the module exits; the next client starts the module again. A
// module that is started by hand binds its own socket.
//
//   auto listener = KLNModuleListener::create<GreeterProxy>("com.example.greeter", [](const
//   ModulePeer&) {
//     return std::make_shared<Greeter>();
//   });
//   (*listener)->runUntilIdle();
//
// Objects are created, called and released on the library's thread, like the callbacks of
// KLNClient: they must not block. May be used from any thread except where a comment says
// otherwise.
class KLNModuleListener {
 public:
  using Options = ModuleListenerOptions;
  // Called for each client. A null object refuses the client.
  template <class Protocol>
  using NewObject = std::function<std::shared_ptr<Protocol>(const ModulePeer& peer)>;

  // Serves clients from now on. Fails if the socket is not available.
  template <class Protocol>
  static ClientResult<std::unique_ptr<KLNModuleListener>> create(const std::string& serviceName,
                                                                 NewObject<Protocol> newObject,
                                                                 Options options = {}) {
    return createWith(
        serviceName,
        [newObject = std::move(newObject)](xpc::Connection& connection, const ModulePeer& peer) {
          auto object = newObject(peer);
          if (!object) return false;
          connection.setExportedInterface(xpc::Interface::interfaceWithProtocol<Protocol>());
          connection.setExportedObject<Protocol>(std::move(object));
          return true;
        },
        std::move(options));
  }
  // Stops accepting clients; once it has returned, no object is being created. Connected clients
  // stay.
  ~KLNModuleListener();
  KLNModuleListener(const KLNModuleListener&) = delete;
  KLNModuleListener& operator=(const KLNModuleListener&) = delete;

  // Returns a token that keeps the module from being idle, even without clients.
  std::shared_ptr<void> beginWork();

  // Waits until the module is idle, then stops accepting: later clients wait for the module's next
  // start. Not on the library's own thread.
  void runUntilIdle();

  // In a child forked since, beginWork() returns null and runUntilIdle() returns immediately: the
  // clients are the parent's.

 private:
  class Delegate;
  using Configure = std::function<bool(xpc::Connection& connection, const ModulePeer& peer)>;

  explicit KLNModuleListener(std::shared_ptr<Delegate> delegate);
  static ClientResult<std::unique_ptr<KLNModuleListener>> createWith(const std::string& serviceName,
                                                                     Configure configure,
                                                                     Options options);

  std::shared_ptr<Delegate> delegate_;
};

}  // namespace keel
