// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/wire/method_table.h"
#include "runtime/xpc/reply.h"

namespace keel::protocols {

// The service "com.vantor.keeld.auth": proof that a user is an administrator. A success is recorded
// under the audit session of the calling connection. A null error means success; codes 5, 6 and 14
// are of KLNErrorDomain.
class AuthProxy {
 public:
  virtual ~AuthProxy() = default;

  // Replies with a null error, as a sign of life.
  virtual void authServiceCheckWithHandler(xpc::Reply<Error> handler) = 0;

  // Codes 5, 14.
  virtual void authenticateUser(String user, String withPassword, xpc::Reply<Error> andHandler) = 0;

  // `form` is an authorization reference in its external form of 32 bytes. Statuses of
  // Authorization Services in NSOSStatusErrorDomain, code 14.
  virtual void authenticateForUser(String user, Data form, xpc::Reply<Error> withHandler) = 0;

  // Replies with the realm of the challenges below.
  virtual void authGetDefaultRealm(xpc::Reply<String, Error> handler) = 0;

  // Reply with the challenge, the ID to answer it under, and a null error.
  virtual void authBasicStartWithHandler(xpc::Reply<String, String, Error> handler) = 0;
  virtual void authDigestStartWithHandler(xpc::Reply<String, String, Error> handler) = 0;

  // Replies with a response text, the user's name, and an error: codes 5, 6, 14.
  virtual void authValidate(String answer, String andID,
                            xpc::Reply<String, String, Error> withHandler) = 0;

  // Replies true if anybody was proved an administrator in that audit session.
  virtual void isAuthedASID(std::int32_t asid, xpc::Reply<bool> withHandler) = 0;
};

using AuthProxyMethods = xpc::MethodTable<
    xpc::Method<"authServiceCheckWithHandler:", &AuthProxy::authServiceCheckWithHandler>,
    xpc::Method<"authenticateUser:withPassword:andHandler:", &AuthProxy::authenticateUser,
                xpc::Weight::slow>,
    xpc::Method<"authenticateForUser:using:withHandler:", &AuthProxy::authenticateForUser,
                xpc::Weight::slow>,
    xpc::Method<"authGetDefaultRealm:", &AuthProxy::authGetDefaultRealm>,
    xpc::Method<"authBasicStartWithHandler:", &AuthProxy::authBasicStartWithHandler,
                xpc::Weight::lasting>,
    xpc::Method<"authDigestStartWithHandler:", &AuthProxy::authDigestStartWithHandler,
                xpc::Weight::lasting>,
    xpc::Method<"authValidate:andID:withHandler:", &AuthProxy::authValidate, xpc::Weight::slow>,
    xpc::Method<"isAuthedASID:withHandler:", &AuthProxy::isAuthedASID>>;
AuthProxyMethods methodTableOf(const AuthProxy*);

}  // namespace keel::protocols
