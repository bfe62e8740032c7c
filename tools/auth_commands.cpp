// SPDX-License-Identifier: Apache-2.0
#include "tools/auth_commands.h"

#include <fmt/format.h>

#include <memory>
#include <utility>

#include "client/auth_client.h"
#include "client/challenge_answer.h"
#include "client/shown_text.h"
#include "tools/password_input.h"
#include "tools/polkit_agent.h"

namespace keel {

namespace {

// A check may have to wait in a queue, and then for the account database.
constexpr std::chrono::milliseconds kCheckTimeout{30'000};

constexpr std::size_t kShownUserColumns = 100;

// A client and the timeout of its requests.
class Asking {
 public:
  explicit Asking(const CommonOptions& common)
      : timeout_(common.timeout().value_or(kCheckTimeout)) {
    ClientOptions options;
    options.serviceDirectory = common.serviceDirectory;
    options.reconnect = false;
    client_ = KLNAuthClient::create(std::move(options));
  }
  KLNAuthClient* operator->() { return client_.get(); }
  template <class T>
  ClientResult<T> answer(Request<T> request) {
    return std::move(request).within(timeout_).wait();
  }

 private:
  const std::chrono::milliseconds timeout_;
  std::unique_ptr<KLNAuthClient> client_;
};

// Writes `text`, or `json` with --json.
void tell(Console& console, const CommonOptions& common, std::string text, std::string json) {
  console.writeLine(common.json || !console.isTerminal() ? std::move(json) : std::move(text));
}

int tellProof(Console& console, const CommonOptions& common, const std::string& user) {
  const std::int32_t session = ownAuditSession();
  tell(console, common,
       fmt::format("{} is proved an administrator in audit session {}{}",
                   shownText(user, kShownUserColumns), session,
                   session == -1 ? ", which all processes without a session share" : ""),
       fmt::format(R"({{"user":{},"auditSession":{},"authenticated":true}})",
                   jsonOfText(user, console.letters()), session));
  return kExitOk;
}

std::optional<Secret> passwordOf(Console& console, const AuthOptions& options) {
  auto password =
      readPassword(fmt::format("Password of {}: ", shownText(options.user, kShownUserColumns)),
                   options.passwordDescriptor, Prompting::once);
  if (password) return std::move(*password);
  console.note(password.error());
  return std::nullopt;
}

// In both schemes a colon terminates the name.
bool isNameForChallenge(Console& console, const std::string& user) {
  if (!isName(console, user)) return false;
  if (!user.contains(':')) return true;
  reportUsage(console, "a user's name with : cannot be sent this way");
  return false;
}

int validate(Console& console, const CommonOptions& common, Asking& asking,
             const AuthChallenge& challenge, const Secret& answer, const DigestReply* reply) {
  const auto proof = asking.answer(asking->validate(answer, challenge.id));
  if (!proof) return report(console, proof.error());
  if (reply != nullptr && !reply->isConfirmedBy(proof->response.value_or(""))) {
    console.note("keeld accepted the answer, but did not show that it knows the password itself");
    return kExitRefused;
  }
  return tellProof(console, common, proof->user);
}

// polkit prompts at the terminal while the agent lives.
ClientResult<Data> formAfterProof() {
  const PolkitAgent agent;
  return KLNAuthClient::makeForm(AuthInteraction::allowed);
}

}  // namespace

int authAliveCommand(Console& console, const CommonOptions& common) {
  Asking asking(common);
  const auto alive = asking.answer(asking->check());
  if (!alive) return report(console, alive.error());
  tell(console, common, "the auth service is alive", R"({"alive":true})");
  return kExitOk;
}

int authRealmCommand(Console& console, const CommonOptions& common) {
  Asking asking(common);
  const auto realm = asking.answer(asking->defaultRealm());
  if (!realm) return report(console, realm.error());
  tell(console, common, shownText(*realm, kShownUserColumns),
       fmt::format(R"({{"realm":{}}})", jsonOfText(*realm, console.letters())));
  return kExitOk;
}

int authSessionCommand(Console& console, const CommonOptions& common, const AuthOptions& options) {
  const std::int32_t session = options.auditSession ? *options.auditSession : ownAuditSession();
  Asking asking(common);
  const auto authenticated = asking.answer(asking->isAuthenticated(session));
  if (!authenticated) return report(console, authenticated.error());
  tell(console, common,
       fmt::format("{}: in audit session {} {} proved an administrator",
                   *authenticated ? "yes" : "no", session,
                   *authenticated ? "somebody was" : "nobody was"),
       fmt::format(R"({{"auditSession":{},"authenticated":{}}})", session, *authenticated));
  return *authenticated ? kExitOk : kExitRefused;
}

int authPasswordCommand(Console& console, const CommonOptions& common, const AuthOptions& options) {
  if (!isName(console, options.user)) return kExitUsage;
  const auto password = passwordOf(console, options);
  if (!password) return kExitUsage;
  Asking asking(common);
  const auto proved = asking.answer(asking->authenticate(options.user, *password));
  return proved ? tellProof(console, common, options.user) : report(console, proved.error());
}

int authBasicCommand(Console& console, const CommonOptions& common, const AuthOptions& options) {
  if (!isNameForChallenge(console, options.user)) return kExitUsage;
  const auto password = passwordOf(console, options);
  if (!password) return kExitUsage;
  Asking asking(common);
  const auto challenge = asking.answer(asking->startBasic());
  if (!challenge) return report(console, challenge.error());
  const auto answer = basicAnswer(options.user, *password);
  return validate(console, common, asking, *challenge, *answer, /*reply=*/nullptr);
}

int authDigestCommand(Console& console, const CommonOptions& common, const AuthOptions& options) {
  if (!isNameForChallenge(console, options.user)) return kExitUsage;
  const auto password = passwordOf(console, options);
  if (!password) return kExitUsage;
  Asking asking(common);
  const auto challenge = asking.answer(asking->startDigest());
  if (!challenge) return report(console, challenge.error());
  const auto reply = DigestReply::to(challenge->text, options.user, *password);
  if (!reply) {
    console.note("keeld's challenge is of no kind that keelctl can answer");
    return kExitRefused;
  }
  return validate(console, common, asking, *challenge, reply->answer(), &*reply);
}

int authReferenceCommand(Console& console, const CommonOptions& common,
                         const AuthOptions& options) {
  if (!isName(console, options.user)) return kExitUsage;
  const auto form =
      options.interactive ? formAfterProof() : KLNAuthClient::makeForm(AuthInteraction::none);
  if (!form) return report(console, form.error());
  Asking asking(common);
  const auto proved = asking.answer(asking->authenticateByReference(options.user, *form));
  return proved ? tellProof(console, common, options.user) : report(console, proved.error());
}

}  // namespace keel
