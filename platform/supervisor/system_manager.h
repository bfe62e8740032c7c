// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <string>
#include <vector>

#include "runtime/foundation/error.h"

namespace keel {

// What we ask of systemd (org.freedesktop.systemd1). Every call ends within a deadline of its own.
// On one thread.
class SystemManager {
 public:
  using Done = std::expected<void, Error>;

  virtual ~SystemManager() = default;

  // The folders in which systemd looks for units.
  virtual std::expected<std::vector<std::string>, Error> unitPath() = 0;
  // As is-enabled of systemctl(1) has it, "enabled-runtime" for example; empty when there is no
  // such unit. Looks at the disk.
  virtual std::expected<std::string, Error> unitFileState(const std::string& name) = 0;
  // `runtime`: until the next boot.
  virtual Done enable(const std::string& name, bool runtime) = 0;
  virtual Done disable(const std::string& name, bool runtime) = 0;
  // Loads the unit if need be. Sockets are waited for, for a while: one that is not ready then is
  // no error, one that fails is.
  virtual Done start(const std::string& name) = 0;
  // Asks for it and does not wait. No error when it does not run.
  virtual Done stop(const std::string& name) = 0;
  // Reads the files of all loaded units again. By far the dearest call.
  virtual Done reload() = 0;
};

// The one of this machine. Connects with the first call.
std::unique_ptr<SystemManager> connectSystemManager();

}  // namespace keel
