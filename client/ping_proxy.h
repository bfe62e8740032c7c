// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "runtime/wire/method_table.h"

namespace keel {

// A protocol with one method, for tests that apply to any protocol.
class PingProxy {
 public:
  virtual ~PingProxy() = default;
  virtual void ping(xpc::Reply<std::int64_t> withHandler) = 0;
};
using PingProxyMethods = xpc::MethodTable<xpc::Method<"pingWithHandler:", &PingProxy::ping>>;
PingProxyMethods methodTableOf(const PingProxy*);

class Ping final : public PingProxy {
 public:
  void ping(xpc::Reply<std::int64_t> withHandler) override { withHandler(1); }
};

}  // namespace keel
