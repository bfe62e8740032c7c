// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "auth/auth_handler.h"
#include "auth/auth_service.h"
#include "platform/product/product.h"
#include "tests/support/fake_client.h"
#include "tests/support/log_recorder.h"

// For the tests of this folder: fake back ends that record their calls.

namespace keel {

using protocols::AuthProxy;
using ::testing::ElementsAre;
using testing::FakeClient;
using ::testing::IsEmpty;
using testing::LogLine;

inline const Error kAuthFailed(KLNErrorDomain, 5);
inline const Error kAuthIDNotFound(KLNErrorDomain, 6);
inline const Error kNotAdmin(KLNErrorDomain, 14);

inline LogLine debugLine(std::string text) {
  return {LogLevel::debug, "auth", std::move(text)};
}

// Calls of all fakes, in order.
using Calls = std::vector<std::string>;

class FakeMembership final : public Membership {
 public:
  explicit FakeMembership(Calls& calls) : calls_(calls) {}

  std::optional<std::string> shortName(const std::string& name) override {
    calls_.push_back("shortName " + name);
    const auto found = shortNames.find(name);
    return found != shortNames.end() ? std::optional(found->second) : std::nullopt;
  }
  int mbr_user_name_to_uuid(const std::string& name, Identifier& user) override {
    calls_.push_back("user " + name);
    user = Identifier(Identifier::User{name, 20});
    return userProblem;
  }
  int mbr_group_name_to_uuid(const std::string& name, Identifier& group) override {
    calls_.push_back("group " + name);
    group = Identifier(Identifier::Group{80});
    return groupProblem;
  }
  int mbr_check_membership(const Identifier& user, const Identifier& group,
                           bool& isMember) override {
    EXPECT_EQ(group.group()->id, 80u);
    isMember = administrators.contains(user.user()->name);
    return checkProblem;
  }

  std::map<std::string, std::string> shortNames;
  std::set<std::string> administrators{"alice"};
  int userProblem = 0;
  int groupProblem = 0;
  int checkProblem = 0;

 private:
  Calls& calls_;
};

// Accepts the answer "right NAME" for the user of that name. Its response is "response", unless the
// name is "quiet".
class FakeAuthenticator final : public QZAuthenticator {
 public:
  FakeAuthenticator(Calls& calls, std::string kind) : calls_(calls), kind_(std::move(kind)) {}

  void setMethod(String method) override {
    calls_.push_back(kind_ + " setMethod " + std::string(method.view()));
  }
  String generateInitialResponse() override {
    calls_.push_back(kind_ + " generateInitialResponse");
    return std::string_view(kind_ + " challenge");
  }
  bool validateChallenge(const String& answer, String* generateResponse) override {
    calls_.push_back(kind_ + " validateChallenge " + std::string(answer.view()) +
                     (generateResponse == nullptr ? " without a response" : ""));
    const bool right = answer.view().starts_with("right ");
    // A refusal may set the response, too.
    if (generateResponse != nullptr && answer.view() != "right quiet")
      *generateResponse = "response";
    user_ = right ? String(answer.view().substr(6)) : String("somebody");
    return right;
  }
  String userName() const override { return user_; }

 private:
  Calls& calls_;
  const std::string kind_;
  String user_;
};

class FakeAuthenticators final : public Authenticators {
 public:
  explicit FakeAuthenticators(Calls& calls) : calls_(calls) {}

  bool verifyUserName(const String& userName, const String& password) override {
    calls_.push_back("verify " + std::string(userName.view()));
    if (userName.isNull() || password.isNull()) return false;
    return password == String("right");
  }
  String defaultRealm() override { return "a realm"; }
  std::shared_ptr<QZAuthenticator> serverDigestAuthenticator() override { return make("digest"); }
  std::shared_ptr<QZAuthenticator> serverBasicAuthenticator() override { return make("basic"); }

  std::vector<std::weak_ptr<QZAuthenticator>> made;
  std::function<void()> onMake;

 private:
  std::shared_ptr<QZAuthenticator> make(const char* kind) {
    calls_.push_back(std::string("make ") + kind);
    if (onMake) onMake();
    auto one = std::make_shared<FakeAuthenticator>(calls_, kind);
    made.push_back(one);
    return one;
  }
  Calls& calls_;
};

class FakeAuthorization final : public Authorization {
 public:
  explicit FakeAuthorization(Calls& calls) : calls_(calls) {}

  OSStatus AuthorizationCreateFromExternalForm(const AuthorizationExternalForm& form,
                                               const xpc::PeerIdentity& peer,
                                               AuthorizationRef& authorization) override {
    calls_.push_back("create from pid " + std::to_string(peer.pid));
    given = form;
    if (createStatus == 0) {
      authorization = std::make_shared<const xpc::PeerIdentity>(peer);
      reference = authorization;
    }
    return createStatus;
  }
  OSStatus AuthorizationCopyRights(const AuthorizationRef& authorization,
                                   std::span<const AuthorizationItem> rights,
                                   AuthorizationFlags flags) override {
    EXPECT_EQ(authorization, reference.lock());
    EXPECT_EQ(rights.size(), 1u);
    EXPECT_EQ(rights[0].valueLength, 0u);
    EXPECT_EQ(rights[0].value, nullptr);
    EXPECT_EQ(rights[0].flags, 0u);
    calls_.push_back(std::string("copy ") + rights[0].name + " flags " + std::to_string(flags));
    return copyStatus;
  }
  OSStatus AuthorizationFree(AuthorizationRef& authorization, AuthorizationFlags flags) override {
    EXPECT_EQ(authorization, reference.lock());
    calls_.push_back("free flags " + std::to_string(flags));
    if (onFree) onFree();
    return 0;
  }

  OSStatus createStatus = 0;
  OSStatus copyStatus = 0;
  AuthorizationExternalForm given;
  std::weak_ptr<const xpc::PeerIdentity> reference;
  std::function<void()> onFree;

 private:
  Calls& calls_;
};

// A client of the auth service with its handler, connected as the listener's delegate does it.
class AuthClient : public FakeClient {
 public:
  AuthClient(ManualExecutor& executor, const AuthBackEnds& backEnds, std::int32_t auditSession = 7)
      : FakeClient(executor, identity(100, auditSession)) {
    const auto handler = std::make_shared<KLNAuthHandler>(backEnds);
    handler_ = handler;
    connection()->setExportedInterface(xpc::Interface::interfaceWithProtocol<AuthProxy>());
    connection()->setExportedObject<AuthProxy>(handler);
    handler->setXpcConnection(connection());
    connection()->setInterruptionHandler([handler] { handler->connectionInterupted(); });
    connection()->setInvalidationHandler([handler] { handler->connectionInvalidated(); });
    connection()->resume();
  }
  // Returns null once the handler is destroyed.
  std::shared_ptr<KLNAuthHandler> handler() const { return handler_.lock(); }

 private:
  std::weak_ptr<KLNAuthHandler> handler_;
};

class AuthHandler : public ::testing::Test {
 protected:
  // Returns the results of a request that must be answered before it returns.
  template <auto Member, class... Arguments>
  auto ask(AuthClient& asking, Arguments... arguments) {
    const std::uint64_t id = asking.request<Member>(std::move(arguments)...);
    const auto results = asking.resultsOf<Member>(id);
    EXPECT_TRUE(results) << "not answered at once";
    return results.value();
  }
  Error authenticate(AuthClient& asking, String user, String password) {
    return std::get<0>(
        ask<&AuthProxy::authenticateUser>(asking, std::move(user), std::move(password)));
  }
  Error authenticate(AuthClient& asking, String user, std::size_t formBytes) {
    const std::vector<std::byte> form(formBytes, std::byte{'f'});
    return std::get<0>(ask<&AuthProxy::authenticateForUser>(asking, std::move(user), Data(form)));
  }
  bool isAuthedASID(std::int32_t asid) {
    AuthClient other(executor, backEnds, 99);
    const std::uint64_t id = other.request<&AuthProxy::isAuthedASID>(asid);
    EXPECT_FALSE(other.isAnswered(id));
    executor.runAll();
    return std::get<0>(other.resultsOf<&AuthProxy::isAuthedASID>(id).value());
  }
  // Returns the users recorded for the session.
  std::vector<String> recorded(std::int32_t asid) {
    executor.runAll();
    const auto found = service->authTable().find(std::to_string(asid));
    return found != service->authTable().end() ? found->second : std::vector<String>();
  }
  Calls takeCalls() { return std::exchange(calls, {}); }

  ManualExecutor executor;
  std::shared_ptr<KLNAuthService> service = std::make_shared<KLNAuthService>(executor);
  KLNAuthService::Override override_{service};
  testing::LogRecorder log{LogLevel::debug};
  Calls calls;
  FakeMembership membership{calls};
  FakeAuthenticators authenticators{calls};
  FakeAuthorization authorization{calls};
  AuthBackEnds backEnds{membership, authenticators, authorization,
                        [this](std::span<std::byte> bytes) {
                          calls.push_back("random");
                          return SecRandomCopyBytes(bytes);
                        }};
  AuthClient client{executor, backEnds};
};

}  // namespace keel
