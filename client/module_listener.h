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

// Who connected to a module, as it was at that moment.
struct ModulePeer {
  pid_t processIdentifier = -1;
  uid_t effectiveUserIdentifier = 0;
  std::int32_t auditSessionIdentifier = -1;
};

struct ModuleListenerOptions {
  // Where the service's socket is made when none was handed over; empty for the fixed place,
  // /run/keeld.
  std::string serviceDirectory = {};
  // How long nobody must be connected, and nothing under way, before runUntilIdle() returns.
  std::chrono::milliseconds idleTime{10'000};
};

// A module's own Mach service: gives every client that connects an object to call, as keeld does it
// with its services, and tells when the module may end. The socket is the one that the service
// manager hands over under that name (sd_listen_fds(3)): it stays when the module ends, and the
// next client starts the module again. A module that is started by hand makes its own.
//
//   auto listener = KLNModuleListener::create<GreeterProxy>("com.example.greeter", [](const
//   ModulePeer&) {
//     return std::make_shared<Greeter>();
//   });
//   (*listener)->runUntilIdle();
//
// Objects are made, called and let go on the library's thread, as the callbacks of KLNClient are:
// they must not block. From any thread, unless a comment says otherwise.
class KLNModuleListener {
 public:
  using Options = ModuleListenerOptions;
  // The library calls it for each client. A null object turns the client away.
  template <class Protocol>
  using NewObject = std::function<std::shared_ptr<Protocol>(const ModulePeer& peer)>;

  // Clients are served from now on. The error says why the socket cannot be had.
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
  // No client is accepted any more, and when it has returned, no object is being made. Clients that
  // are connected stay.
  ~KLNModuleListener();
  KLNModuleListener(const KLNModuleListener&) = delete;
  KLNModuleListener& operator=(const KLNModuleListener&) = delete;

  // While one of these lives the module is not idle, even without clients.
  std::shared_ptr<void> beginWork();

  // Waits until the module is idle, and takes no more clients then: whoever connects from now on
  // waits for the next run. Not on the library's own thread.
  void runUntilIdle();

  // In a child that was forked since, whose clients are its parent's: beginWork() returns null,
  // runUntilIdle() returns at once.

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
