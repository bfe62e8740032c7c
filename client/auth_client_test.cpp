// SPDX-License-Identifier: Apache-2.0
#include "client/auth_client.h"

#include <gmock/gmock.h>

#include "client/client_core.h"
#include "platform/authorization/external_form.h"
#include "platform/product/product.h"
#include "protocols/auth_proxy.h"
#include "tests/support/loop_transport.h"

namespace keel {
namespace {

using ::testing::HasSubstr;
using Kind = ClientError::Kind;

// A fake of the daemon's end: records calls and sends scripted answers.
class FakeAuth final : public protocols::AuthProxy {
 public:
  void authServiceCheckWithHandler(xpc::Reply<Error> handler) override { handler(error); }
  void authenticateUser(String user, String withPassword, xpc::Reply<Error> andHandler) override {
    asked = std::string(user.view()) + "/" + std::string(withPassword.view());
    andHandler(error);
  }
  void authenticateForUser(String user, Data data, xpc::Reply<Error> withHandler) override {
    asked = user.view();
    std::ranges::copy(data.bytes(), form.bytes.begin());
    withHandler(error);
  }
  void authGetDefaultRealm(xpc::Reply<String, Error> handler) override {
    handler("a realm", error);
  }
  void authBasicStartWithHandler(xpc::Reply<String, String, Error> handler) override {
    handler("basic", "myob-1", error);
  }
  void authDigestStartWithHandler(xpc::Reply<String, String, Error> handler) override {
    handler("digest", "myob-2", error);
  }
  void authValidate(String answer, String andID,
                    xpc::Reply<String, String, Error> withHandler) override {
    asked = std::string(answer.view()) + "/" + std::string(andID.view());
    withHandler(response, "alice", error);
  }
  void isAuthedASID(std::int32_t asid, xpc::Reply<bool> withHandler) override {
    withHandler(asid == 7);
  }

  Error error;
  String response;
  std::string asked;
  AuthorizationExternalForm form;
};

class AuthClientTest : public ::testing::Test {
 protected:
  AuthClientTest() {
    reactor.turn(/*wait=*/false);
    auto connector = [this]() -> std::expected<std::shared_ptr<xpc::Connection>, Error> {
      auto [here, there] = testing::LoopTransport::pair(reactor);
      served = xpc::Connection::create({}, std::move(there), {});
      served->setExportedInterface(xpc::Interface::interfaceWithProtocol<protocols::AuthProxy>());
      served->setExportedObject<protocols::AuthProxy>(service);
      served->resume();
      return xpc::Connection::create({}, std::move(here), {});
    };
    client = std::make_unique<KLNAuthClient>(std::make_shared<ClientCore>(
        reactor, connector, "/run/keeld/test", ClientOptions(), [] { return 0.0; },
        ClientService::auth));
    settle();
  }
  ~AuthClientTest() override {
    client.reset();
    served->invalidate();
    settle();
  }

  void settle() {
    for (int idle = 0; idle < 3;) idle = reactor.turn(/*wait=*/false) ? 0 : idle + 1;
  }
  template <class T>
  ClientResult<T> resultOf(Request<T> request) {
    auto future = std::move(request).future();
    settle();
    if (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      return std::unexpected(
          ClientError(Kind::timedOut, "still waiting when nothing was left to do"));
    }
    return future.get();
  }
  // Returns the result of authenticate() when the service answers with `error`.
  ClientError refusalFor(Error error) {
    service->error = std::move(error);
    const auto result = resultOf(client->authenticate("alice", Secret("word")));
    EXPECT_FALSE(result);
    return result ? ClientError(Kind::closed, "") : result.error();
  }

  Reactor reactor;
  std::shared_ptr<FakeAuth> service = std::make_shared<FakeAuth>();
  std::shared_ptr<xpc::Connection> served;
  std::unique_ptr<KLNAuthClient> client;
};

TEST_F(AuthClientTest, EveryRequestIsAnswered) {
  EXPECT_TRUE(resultOf(client->check()));
  EXPECT_TRUE(resultOf(client->authenticate("alice", Secret("word"))));
  EXPECT_EQ(service->asked, "alice/word");
  EXPECT_EQ(resultOf(client->defaultRealm()).value(), "a realm");
  EXPECT_EQ(resultOf(client->startBasic()).value().text, "basic");
  EXPECT_EQ(resultOf(client->startDigest()).value().id, "myob-2");
  EXPECT_TRUE(resultOf(client->isAuthenticated(7)).value());
  EXPECT_FALSE(resultOf(client->isAuthenticated(-1)).value());
}

TEST_F(AuthClientTest, TheFormIsThatOfThisProcess) {
  const auto form = KLNAuthClient::makeForm(AuthInteraction::none);
  ASSERT_TRUE(form);
  EXPECT_TRUE(resultOf(client->authenticateByReference("alice", *form)));
  EXPECT_EQ(service->asked, "alice");
  const auto named = processOf(service->form);
  ASSERT_TRUE(named);
  EXPECT_EQ(named->pid, static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(named->uid, ::geteuid());
  EXPECT_GT(named->startTime, 0u);
}

TEST_F(AuthClientTest, TheFormIsSentUnchanged) {
  service->form.bytes.fill(std::byte{0});
  const std::array bytes{std::byte{1}, std::byte{2}, std::byte{3}};
  EXPECT_TRUE(resultOf(client->authenticateByReference("alice", Data(bytes))));
  EXPECT_TRUE(std::ranges::equal(std::span(service->form.bytes).first(3), bytes));
  EXPECT_EQ(service->form.bytes[3], std::byte{0});
}

TEST_F(AuthClientTest, TheFormMayBeReused) {
  const auto form = KLNAuthClient::makeForm(AuthInteraction::none);
  for (const char* user : {"alice", "grace"}) {
    EXPECT_TRUE(resultOf(client->authenticateByReference(user, form.value())));
    EXPECT_EQ(service->asked, user);
  }
}

TEST_F(AuthClientTest, AFormWithInteractionRequiresTheRight) {
  // There is no user to ask. The superuser holds every right.
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", /*replace=*/1);
  const auto form = KLNAuthClient::makeForm(AuthInteraction::allowed, std::chrono::seconds(5));
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  if (::geteuid() == 0) {
    ASSERT_TRUE(form);
    EXPECT_TRUE(std::ranges::equal(form->bytes(),
                                   KLNAuthClient::makeForm(AuthInteraction::none).value().bytes()));
  } else {
    ASSERT_FALSE(form);
    EXPECT_EQ(form.error().kind(), Kind::notAuthorized);
    EXPECT_THAT(form.error().message(), HasSubstr("no right to manage daemons"));
  }
  EXPECT_TRUE(KLNAuthClient::makeForm(AuthInteraction::none));
}

TEST_F(AuthClientTest, ValidateReturnsTheUserAndTheResponseIfAny) {
  auto proof = resultOf(client->validate(Secret("answer"), "myob-1"));
  ASSERT_TRUE(proof);
  EXPECT_EQ(service->asked, "answer/myob-1");
  EXPECT_EQ(proof->user, "alice");
  EXPECT_FALSE(proof->response);
  service->response = "rspauth";
  proof = resultOf(client->validate(Secret("answer"), "myob-1"));
  EXPECT_EQ(proof.value().response, "rspauth");
}

TEST_F(AuthClientTest, RefusalsNameTheirReason) {
  const auto expect = [this](Error error, Kind kind, const char* words) {
    const ClientError refusal = refusalFor(error);
    EXPECT_EQ(refusal.kind(), kind) << words;
    EXPECT_THAT(refusal.message(), HasSubstr(words));
    EXPECT_THAT(refusal.message(), HasSubstr("alice"));
    EXPECT_EQ(refusal.underlying(), error);
  };
  expect(Error(KLNErrorDomain, errAuthFailed), Kind::authFailed, "(error 5)");
  expect(Error(KLNErrorDomain, errAuthIDNotFound), Kind::authIDNotFound,
         "start a new one (error 6)");
  expect(Error(KLNErrorDomain, errNotAdmin), Kind::notAdmin, "not in the group admin (error 14)");
  expect(Error(NSOSStatusErrorDomain, -60002), Kind::notAuthorized,
         "not that of this process (status -60002)");
  expect(Error(NSOSStatusErrorDomain, -60005), Kind::notAuthorized,
         "see the rules of polkit (status -60005)");
  expect(Error(NSOSStatusErrorDomain, -60007), Kind::notAuthorized,
         "with interaction first (status -60007)");
  expect(Error(NSOSStatusErrorDomain, -60008), Kind::notAuthorized,
         "see the log of keeld (status -60008)");
  expect(Error(NSOSStatusErrorDomain, -60011), Kind::notAuthorized, "was refused (status -60011)");
}

TEST_F(AuthClientTest, NoMessageHoldsAPassword) {
  service->error = Error(KLNErrorDomain, errAuthFailed);
  const auto refused = resultOf(client->authenticate("alice", Secret("open sesame")));
  EXPECT_EQ(refused.error().message().find("sesame"), std::string::npos);
  const auto malformed = resultOf(client->authenticate("alice", Secret("open sesame\xff")));
  EXPECT_EQ(malformed.error().kind(), Kind::badArgument);
  EXPECT_EQ(malformed.error().message().find("sesame"), std::string::npos);
}

TEST_F(AuthClientTest, RequestsEndWithTheConnectionOrTheClient) {
  served->invalidate("that is all");
  settle();
  client->close();
  settle();
  EXPECT_EQ(resultOf(client->check()).error().kind(), Kind::closed);
}

}  // namespace
}  // namespace keel
