// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_answer.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>

namespace keel {
namespace {

using Parameters = std::map<std::string, std::string>;

// Returns a valid answer with changes.
std::optional<DigestAnswer> parsedWith(const std::function<void(Parameters&)>& change) {
  Parameters parameters{{"username", "\"alice\""}, {"realm", "\"r\""},
                        {"nonce", "\"n\""},        {"opaque", "\"o\""},
                        {"uri", "\"/\""},          {"response", "\"" + std::string(64, 'a') + "\""},
                        {"algorithm", "SHA-256"},  {"cnonce", "\"c\""},
                        {"qop", "auth"},           {"nc", "00000001"}};
  change(parameters);
  std::string text;
  for (const auto& [name, value] : parameters)
    text += (text.empty() ? "Digest " : ", ") + name + "=" + value;
  return DigestAnswer::parse(text);
}

std::optional<DigestAnswer> parsedWith(const std::string& name, const std::string& value) {
  return parsedWith([&](Parameters& parameters) { parameters[name] = value; });
}

// Returns the user of a valid answer with these parameters instead of the plain name; "none" if
// refused.
std::string userOf(const Parameters& instead) {
  const auto answer = parsedWith([&](Parameters& parameters) {
    parameters.erase("username");
    for (const auto& [name, value] : instead) parameters[name] = value;
  });
  return answer ? answer->user : "none";
}

TEST(DigestAnswer, ReadsEveryParameter) {
  const auto answer = parsedWith([](Parameters&) {});
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->user, "alice");
  EXPECT_FALSE(answer->isUserHashed);
  EXPECT_EQ(answer->realm, "r");
  EXPECT_EQ(answer->nonce, "n");
  EXPECT_EQ(answer->opaque, "o");
  EXPECT_EQ(answer->uri, "/");
  EXPECT_EQ(answer->clientNonce, "c");
  EXPECT_EQ(answer->algorithm, DigestAlgorithm::sha256);
  EXPECT_EQ(answer->response, std::string(64, 'a'));
}

TEST(DigestAnswer, IgnoresUnknownParameters) {
  EXPECT_TRUE(parsedWith("future", "\"x\""));
}

TEST(DigestAnswer, RefusesMissingAndEmptyParameters) {
  for (const char* name :
       {"username", "realm", "nonce", "opaque", "uri", "response", "cnonce", "qop", "nc"}) {
    EXPECT_FALSE(parsedWith([&](Parameters& parameters) { parameters.erase(name); })) << name;
    EXPECT_FALSE(parsedWith(name, "\"\"")) << name;
  }
}

TEST(DigestAnswer, DefaultsToMd5) {
  const auto answer = parsedWith([](Parameters& parameters) {
    parameters.erase("algorithm");
    parameters["response"] = std::string(32, 'a');
  });
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->algorithm, DigestAlgorithm::md5);
}

TEST(DigestAnswer, RefusesAlgorithmsThatWereNotOffered) {
  EXPECT_TRUE(parsedWith("algorithm", "sha-256"));
  EXPECT_TRUE(parsedWith("algorithm", "\"SHA-256\""));
  for (const char* name : {"SHA-256-sess", "MD5-sess", "SHA-512-256", "SHA256", "\"\""}) {
    EXPECT_FALSE(parsedWith("algorithm", name)) << name;
  }
}

TEST(DigestAnswer, RefusesResponsesOfAnotherLengthOrCase) {
  EXPECT_FALSE(parsedWith("response", std::string(63, 'a')));
  EXPECT_FALSE(parsedWith("response", std::string(65, 'a')));
  EXPECT_FALSE(parsedWith("response", std::string(32, 'a')));
  EXPECT_FALSE(parsedWith("response", std::string(64, 'A')));
  EXPECT_FALSE(parsedWith("response", std::string(64, 'g')));
  EXPECT_FALSE(parsedWith("algorithm", "MD5"));
}

TEST(DigestAnswer, RefusesARepeatedNonceCount) {
  EXPECT_TRUE(parsedWith("nc", "\"00000001\""));
  for (const char* count : {"00000002", "1", "00000000", "000000001"})
    EXPECT_FALSE(parsedWith("nc", count)) << count;
}

TEST(DigestAnswer, RefusesOtherQopValues) {
  EXPECT_TRUE(parsedWith("qop", "\"auth\""));
  EXPECT_FALSE(parsedWith("qop", "auth-int"));
  EXPECT_FALSE(parsedWith("qop", "AUTH"));
}

TEST(DigestAnswer, AcceptsAHashedUser) {
  const std::string hash(64, 'b');
  const auto answer = parsedWith([&](Parameters& parameters) {
    parameters["username"] = hash;
    parameters["userhash"] = "true";
  });
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->isUserHashed);
  EXPECT_EQ(answer->user, hash);
  EXPECT_EQ(userOf({{"username", "alice"}, {"userhash", "false"}}), "alice");
  EXPECT_EQ(userOf({{"username", "alice"}, {"userhash", "true"}}), "none");
  EXPECT_EQ(userOf({{"username", std::string(32, 'b')}, {"userhash", "true"}}), "none");
  EXPECT_EQ(userOf({{"username", std::string(64, 'B')}, {"userhash", "true"}}), "none");
  EXPECT_EQ(userOf({{"username", "alice"}, {"userhash", "perhaps"}}), "none");
}

// The name is that of RFC 7616, section 3.9.2.
TEST(DigestAnswer, AcceptsTheExtendedUserName) {
  EXPECT_EQ(userOf({{"username*", "UTF-8''J%C3%A4s%c3%B8n%20Doe"}}), "J\xc3\xa4s\xc3\xb8n Doe");
  EXPECT_EQ(userOf({{"username*", "utf-8'en'alice"}}), "alice");
}

TEST(DigestAnswer, RefusesMalformedExtendedNames) {
  for (const char* text : {"UTF-8''", "alice", "UTF-8'alice", "ISO-8859-1''alice", "UTF-8''%",
                           "UTF-8''%4", "UTF-8''%4x", "UTF-8''%+1", "UTF-8''%-1", "UTF-8''%ff",
                           "\"UTF-8''a b\"", "\"UTF-8''a'b\""}) {
    EXPECT_EQ(userOf({{"username*", text}}), "none") << text;
  }
}

TEST(DigestAnswer, RefusesMoreThanOneFormOfTheUser) {
  EXPECT_EQ(userOf({{"username*", "UTF-8''alice"}, {"username", "alice"}}), "none");
  EXPECT_EQ(userOf({{"username*", "UTF-8''" + std::string(64, 'a')}, {"userhash", "true"}}),
            "none");
}

TEST(DigestAnswer, SizeIsBounded) {
  const std::string text =
      "Digest username=alice, realm=r, nonce=n, opaque=o, response=" + std::string(32, 'a') +
      ", cnonce=c, qop=auth, nc=00000001, uri=";
  const std::string uri(DigestAnswer::kMaxBytes - text.size(), 'u');
  EXPECT_TRUE(DigestAnswer::parse(text + uri));
  EXPECT_FALSE(DigestAnswer::parse(text + uri + "u"));
}

TEST(DigestAnswer, OtherSchemesAreRefused) {
  EXPECT_FALSE(DigestAnswer::parse(""));
  EXPECT_FALSE(DigestAnswer::parse("Basic YTpi"));
  EXPECT_FALSE(DigestAnswer::parse("Digest"));
}

}  // namespace
}  // namespace keel
