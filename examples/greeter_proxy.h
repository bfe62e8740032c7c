// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "runtime/foundation/string.h"
#include "runtime/wire/method_table.h"
#include "runtime/xpc/reply.h"

// The protocol of the example module. A protocol is an abstract class and, beneath it, its method
// table: one ':' in a selector for each parameter. The reply block is the last parameter and
// answers exactly once, immediately or later.
class GreeterProxy {
 public:
  virtual ~GreeterProxy() = default;

  // Answers with a greeting for that name, and publishes the name as "example.greeted".
  virtual void greet(keel::String name, keel::xpc::Reply<keel::String> withHandler) = 0;
};

using GreeterProxyMethods =
    keel::xpc::MethodTable<keel::xpc::Method<"greet:withHandler:", &GreeterProxy::greet>>;
GreeterProxyMethods methodTableOf(const GreeterProxy*);
