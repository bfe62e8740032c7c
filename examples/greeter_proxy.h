// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "runtime/foundation/string.h"
#include "runtime/wire/method_table.h"
#include "runtime/xpc/reply.h"

// What the example module offers to its clients. A protocol is an abstract class and, beneath it,
// its method table: one ':' in a selector for each parameter. A reply block comes last and answers
// once, at once or later.
class GreeterProxy {
 public:
  virtual ~GreeterProxy() = default;

  // A greeting for that name. The module publishes whom it has greeted as "example.greeted".
  virtual void greet(keel::String name, keel::xpc::Reply<keel::String> withHandler) = 0;
};

using GreeterProxyMethods =
    keel::xpc::MethodTable<keel::xpc::Method<"greet:withHandler:", &GreeterProxy::greet>>;
GreeterProxyMethods methodTableOf(const GreeterProxy*);
