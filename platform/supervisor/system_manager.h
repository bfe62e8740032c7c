// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <string>
#include <vector>

#include "runtime/foundation/error.h"

namespace keel {

// The calls we make to systemd (org.freedesktop.systemd1). Each has its own deadline. On one
// thread.
class SystemManager {
 public:
  using Done = std::expected<void, Error>;

  virtual ~SystemManager() = default;

  // Returns systemd's unit search path.
  virtual std::expected<std::vector<std::string>, Error> unitPath() = 0;
  // Returns the state as `systemctl is-enabled` prints it, "enabled-runtime" for example; empty if
  // there is no such unit. Reads the disk.
  virtual std::expected<std::string, Error> unitFileState(const std::string& name) = 0;
  // `runtime`: until the next boot.
  virtual Done enable(const std::string& name, bool runtime) = 0;
  virtual Done disable(const std::string& name, bool runtime) = 0;
  // Loads the unit if necessary. Waits a while for sockets: one not ready by then is no error, one
  // that fails is.
  virtual Done start(const std::string& name) = 0;
  // Requests the stop and does not wait. No error if the unit is not running.
  virtual Done stop(const std::string& name) = 0;
  // Reloads the files of all units. By far the most expensive call.
  virtual Done reload() = 0;
};

// Returns this machine's manager. Connects on the first call.
std::unique_ptr<SystemManager> connectSystemManager();

}  // namespace keel
