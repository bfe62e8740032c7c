// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_authenticator.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/authenticator/auth_parameters.h"
#include "platform/authenticator/recording_accounts.h"
#include "runtime/foundation/temporary_folder.h"
#include "runtime/logging/log_system.h"

namespace keel {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string digest(DigestAlgorithm algorithm, std::initializer_list<std::string_view> parts) {
  return std::string(digestOf(algorithm, parts)->text());
}

// The client's side, following RFC 7616, section 3.4. Members can be changed before the answer is
// made.
struct Client {
  DigestAlgorithm algorithm = DigestAlgorithm::sha256;
  std::string user = "Mufasa";
  std::string password = "Circle of Life";
  std::string realm = "http-auth@example.org";
  std::string nonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
  std::string opaque = "FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS";
  std::string clientNonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
  std::string uri = "/dir/index.html";
  std::string method = "GET";
  std::string nonceCount = "00000001";
  std::string shownUser{};  // the parameter; empty: the plain name

  std::string response(const std::string& ofMethod) const {
    return digest(algorithm, {digest(algorithm, {user, realm, password}), nonce, nonceCount,
                              clientNonce, "auth", digest(algorithm, {ofMethod, uri})});
  }
  String answer() const {
    return String("Digest " + (shownUser.empty() ? "username=" + quotedString(user) : shownUser) +
                  ", realm=" + quotedString(realm) + ", uri=" + quotedString(uri) + ", algorithm=" +
                  std::string(nameOf(algorithm)) + ", nonce=" + quotedString(nonce) +
                  ", nc=" + nonceCount + ", cnonce=" + quotedString(clientNonce) +
                  ", qop=auth, response=" + quotedString(response(method)) +
                  ", opaque=" + quotedString(opaque));
  }
};

class DigestAuthenticatorTest : public ::testing::Test {
 protected:
  DigestAuthenticatorTest() {
    store.emplace(path);
    write(lines("Mufasa", "http-auth@example.org", "Circle of Life"));
  }

  static std::string lines(const std::string& user, const std::string& realm,
                           const std::string& password) {
    std::string text;
    for (const DigestAlgorithm algorithm : kDigestAlgorithms) {
      text += user + ":" + realm + ":" + digest(algorithm, {user, realm, password}) + "\n";
    }
    return text;
  }
  void write(const std::string& text, mode_t mode = 0600) const {
    std::ofstream(path) << text;
    ::chmod(path.c_str(), mode);
  }
  DigestAuthenticator authenticator() {
    DigestAuthenticator made("http-auth@example.org",
                             {.nonce = Client().nonce, .opaque = Client().opaque}, *store, accounts,
                             refusalTime);
    made.setMethod("GET");
    return made;
  }
  // Returns true if a fresh authenticator accepts the answer; stores its response in `response`.
  bool takes(const String& answer) { return authenticator().validateChallenge(answer, &response); }
  bool takes(const Client& client) { return takes(client.answer()); }

  const TemporaryFolder folder;
  const std::string path = folder.path("digest");
  std::optional<DigestStore> store;
  RecordingAccounts accounts;
  const RefusalTime::Clock::time_point begin{12345s};
  int refusalCount = 0;
  const RefusalTime refusalTime{500ms, [this] { return begin; },
                                [this](RefusalTime::Clock::time_point) { ++refusalCount; }};
  String response;
};

TEST_F(DigestAuthenticatorTest, ChallengesAsInTheExampleOfTheRfc) {
  EXPECT_EQ(
      authenticator().generateInitialResponse(),
      String(
          "Digest realm=\"http-auth@example.org\", qop=\"auth\", algorithm=SHA-256, "
          "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", "
          "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\", charset=UTF-8, userhash=true\n"
          "Digest realm=\"http-auth@example.org\", qop=\"auth\", algorithm=MD5, "
          "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", "
          "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\", charset=UTF-8, userhash=true"));
}

// RFC 7616, section 3.9.1.
TEST_F(DigestAuthenticatorTest, AcceptsTheAnswersOfTheRfc) {
  const std::string common =
      "Digest username=\"Mufasa\", realm=\"http-auth@example.org\", uri=\"/dir/index.html\", "
      "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", nc=00000001, "
      "cnonce=\"f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ\", qop=auth, "
      "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\", ";
  EXPECT_TRUE(
      takes(String(common + "algorithm=MD5, response=\"8ca523f5e9506fed4657c9700eebdbec\"")));
  EXPECT_TRUE(takes(
      String(common +
             "algorithm=SHA-256, "
             "response=\"753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1\"")));
  EXPECT_FALSE(takes(
      String(common +
             "algorithm=SHA-256, "
             "response=\"753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c2\"")));
}

TEST_F(DigestAuthenticatorTest, NamesTheUserAfterSuccess) {
  auto one = authenticator();
  EXPECT_TRUE(one.userName().isNull());
  EXPECT_TRUE(one.validateChallenge(Client().answer(), nullptr));
  EXPECT_EQ(one.userName(), String("Mufasa"));
}

TEST_F(DigestAuthenticatorTest, ProvesItselfInItsResponse) {
  for (const DigestAlgorithm algorithm : kDigestAlgorithms) {
    const Client client{.algorithm = algorithm};
    ASSERT_TRUE(takes(client));
    EXPECT_EQ(response,
              String("qop=auth, rspauth=\"" + client.response("") +
                     "\", cnonce=\"f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ\", nc=00000001"));
  }
}

TEST_F(DigestAuthenticatorTest, ChecksTheAccount) {
  EXPECT_TRUE(takes(Client()));
  EXPECT_THAT(accounts.asked, ElementsAre("account Mufasa"));
  EXPECT_EQ(accounts.start, begin);
  EXPECT_EQ(refusalCount, 0);
}

TEST_F(DigestAuthenticatorTest, RefusesAnUnusableAccount) {
  accounts.answer = false;
  auto one = authenticator();
  response = "before";
  EXPECT_FALSE(one.validateChallenge(Client().answer(), &response));
  EXPECT_TRUE(one.userName().isNull());
  EXPECT_EQ(response, String("before"));
  // The account check delays that refusal itself.
  EXPECT_EQ(refusalCount, 0);
}

TEST_F(DigestAuthenticatorTest, WrongPasswordsAndUnknownUsersAreRefusedAtTheSameTime) {
  EXPECT_FALSE(takes(Client{.password = "circle of life"}));
  EXPECT_EQ(refusalCount, 1);
  EXPECT_FALSE(takes(Client{.user = "Scar"}));
  EXPECT_EQ(refusalCount, 2);
  EXPECT_THAT(accounts.asked, IsEmpty());
}

// The stand-in credentials of unknown users must not be usable.
TEST_F(DigestAuthenticatorTest, RefusesTheDigestOfZerosForAnUnknownUser) {
  const Client client{.user = "Scar"};
  const std::string zeros(64, '0');
  const std::string guessed =
      digest(client.algorithm, {zeros, client.nonce, "00000001", client.clientNonce, "auth",
                                digest(client.algorithm, {"GET", client.uri})});
  std::string text(client.answer().view());
  text.replace(text.find(client.response("GET")), guessed.size(), guessed);
  EXPECT_FALSE(takes(String(text)));
}

TEST_F(DigestAuthenticatorTest, RefusesAnswersToOtherChallengesImmediately) {
  EXPECT_FALSE(takes(Client{.nonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0w"}));
  EXPECT_FALSE(takes(Client{.opaque = "other"}));
  EXPECT_FALSE(takes(Client{.nonceCount = "00000002"}));
  write(lines("Mufasa", "other", "Circle of Life"));
  EXPECT_FALSE(takes(Client{.realm = "other"}));
  EXPECT_FALSE(takes(String("nonsense")));
  EXPECT_FALSE(takes(String()));
  EXPECT_EQ(refusalCount, 0);
  EXPECT_THAT(accounts.asked, IsEmpty());
}

TEST_F(DigestAuthenticatorTest, UsesOnlyCredentialsOfItsRealm) {
  write("Mufasa:other:" +
        digest(DigestAlgorithm::sha256, {"Mufasa", "http-auth@example.org", "Circle of Life"}) +
        "\n");
  EXPECT_FALSE(takes(Client()));
}

TEST_F(DigestAuthenticatorTest, UsesOnlyCredentialsOfItsAlgorithm) {
  write("Mufasa:http-auth@example.org:" +
        digest(DigestAlgorithm::md5, {"Mufasa", "http-auth@example.org", "Circle of Life"}) + "\n");
  EXPECT_FALSE(takes(Client()));
  EXPECT_TRUE(takes(Client{.algorithm = DigestAlgorithm::md5}));
}

TEST_F(DigestAuthenticatorTest, CoversTheMethod) {
  EXPECT_FALSE(takes(Client{.method = "POST"}));
  auto posted = authenticator();
  posted.setMethod("POST");
  EXPECT_TRUE(posted.validateChallenge(Client{.method = "POST"}.answer(), nullptr));
}

TEST_F(DigestAuthenticatorTest, TakesOneAnswer) {
  auto one = authenticator();
  EXPECT_TRUE(one.validateChallenge(Client().answer(), nullptr));
  EXPECT_FALSE(one.validateChallenge(Client().answer(), nullptr));
  EXPECT_EQ(accounts.asked.size(), 1U);
}

TEST_F(DigestAuthenticatorTest, RefusesAnyAnswerAfterAWrongOne) {
  auto one = authenticator();
  EXPECT_FALSE(one.validateChallenge("nonsense", nullptr));
  EXPECT_FALSE(one.validateChallenge(Client().answer(), nullptr));
  EXPECT_THAT(accounts.asked, IsEmpty());
}

// User name and hash of RFC 7616, section 3.9.2, with another algorithm.
TEST_F(DigestAuthenticatorTest, AcceptsHashedUsers) {
  const std::string name = "J\xc3\xa4s\xc3\xb8n Doe";
  write(lines("Mufasa", "http-auth@example.org", "x") +
        lines(name, "http-auth@example.org", "Secret, or not?"));
  for (const DigestAlgorithm algorithm : kDigestAlgorithms) {
    Client client{.algorithm = algorithm, .user = name, .password = "Secret, or not?"};
    client.shownUser =
        "username=" + quotedString(digest(algorithm, {name, client.realm})) + ", userhash=true";
    auto one = authenticator();
    EXPECT_TRUE(one.validateChallenge(client.answer(), nullptr));
    EXPECT_EQ(one.userName(), String(name));
    client.shownUser = "username*=UTF-8''J%C3%A4s%C3%B8n%20Doe";
    EXPECT_TRUE(takes(client));
    client.shownUser = "username=" + quotedString(digest(algorithm, {name, client.realm}));
    EXPECT_FALSE(takes(client)) << "the digest is not the name";
  }
}

TEST_F(DigestAuthenticatorTest, UnquotesValuesBeforeHashing) {
  write(lines("a \"b\" \\c", "http-auth@example.org", "x"));
  EXPECT_TRUE(takes(Client{.user = "a \"b\" \\c", .password = "x", .clientNonce = "\"\\"}));
  EXPECT_THAT(std::string(response.view()), ::testing::HasSubstr("cnonce=\"\\\"\\\\\""));
}

TEST_F(DigestAuthenticatorTest, UsesChangedCredentialsImmediately) {
  EXPECT_TRUE(takes(Client()));
  write(lines("Mufasa", "http-auth@example.org", "new"));
  EXPECT_FALSE(takes(Client()));
  EXPECT_TRUE(takes(Client{.password = "new"}));
  std::filesystem::remove(path);
  EXPECT_FALSE(takes(Client{.password = "new"}));
}

TEST_F(DigestAuthenticatorTest, IgnoresCredentialsReadableByOthersAndLogsItOnce) {
  std::vector<std::string> logged;
  const LogCapture capture([&](const LogMessage& message) { logged.emplace_back(message.text); });
  ::chmod(path.c_str(), 0640);
  EXPECT_FALSE(takes(Client()));
  EXPECT_FALSE(takes(Client()));
  ASSERT_EQ(logged.size(), 1U);
  EXPECT_THAT(logged[0], ::testing::StartsWith("all answers to digest challenges are refused: " +
                                               path + " is as secret as"));
  ::chmod(path.c_str(), 0600);
  EXPECT_TRUE(takes(Client()));
  ::chmod(path.c_str(), 0640);
  EXPECT_FALSE(takes(Client()));
  EXPECT_EQ(logged.size(), 2U);
}

TEST_F(DigestAuthenticatorTest, LogsABadLineOnceAndUsesTheOthers) {
  std::vector<std::string> logged;
  const LogCapture capture([&](const LogMessage& message) { logged.emplace_back(message.text); });
  write("nonsense\n" + lines("Mufasa", "http-auth@example.org", "Circle of Life"));
  EXPECT_TRUE(takes(Client()));
  EXPECT_TRUE(takes(Client()));
  EXPECT_THAT(logged, ElementsAre("line 1 of " + path +
                                  " is not USER:REALM:DIGEST and is ignored; fix or remove it"));
}

TEST_F(DigestAuthenticatorTest, WithoutAFileNothingIsLogged) {
  std::vector<std::string> logged;
  const LogCapture capture([&](const LogMessage& message) { logged.emplace_back(message.text); });
  std::filesystem::remove(path);
  EXPECT_FALSE(takes(Client()));
  EXPECT_THAT(logged, IsEmpty());
}

TEST(DigestMarks, AreUnique) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const auto marks = DigestAuthenticator::Marks::random();
    EXPECT_EQ(marks.nonce.size(), 48U);
    EXPECT_TRUE(seen.insert(marks.nonce).second && seen.insert(marks.opaque).second);
  }
}

}  // namespace
}  // namespace keel
