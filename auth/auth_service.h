// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "runtime/dispatch/qz_strand.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"

namespace keel {

// Records which users have proved to be administrators, by audit session. Shared by all connections
// of both services; records last for the life of the process. All operations are asynchronous and
// may be called from any thread; they run, and call their handlers, on the strand, in the order of
// the calls. Created with make_shared.
class KLNAuthService : public QZStrand, public std::enable_shared_from_this<KLNAuthService> {
 public:
  // Maps the session, in decimal, to names in recording order. A name may occur more than once; no
  // list is empty.
  using AuthTable = std::unordered_map<std::string, std::vector<String>>;
  class Override;

  // Returns the process's service, created on the first call. From any thread.
  static const std::shared_ptr<KLNAuthService>& defaultService();

  KLNAuthService() = default;
  // Runs on `executor`, which is borrowed and outlives the service.
  explicit KLNAuthService(Executor& executor) : QZStrand(executor) {}

  // Ignores a null user.
  void addUser(String user, std::int32_t andASID);
  void removeASID(std::int32_t asid);
  // Calls `withHandler` with true if exactly that name, case included, is recorded for the session;
  // the error is always null.
  void isAuthedUser(String user, std::int32_t andASID,
                    std::move_only_function<void(bool, Error)> withHandler);
  // Calls `withHandler` with true if any name is recorded for the session.
  void isAuthedASID(std::int32_t asid, std::move_only_function<void(bool)> withHandler);

  // Both on the strand only.
  AuthTable& authTable() { return authTable_; }
  void setAuthTable(AuthTable table) { authTable_ = std::move(table); }

 private:
  static std::shared_ptr<KLNAuthService>& overridingService();

  AuthTable authTable_;
};

// For tests: makes `service` the default one until the token is destroyed. Tokens nest.
class KLNAuthService::Override {
 public:
  explicit Override(std::shared_ptr<KLNAuthService> service);
  ~Override();
  Override(const Override&) = delete;
  Override& operator=(const Override&) = delete;

 private:
  std::shared_ptr<KLNAuthService> outer_;
};

}  // namespace keel
