// SPDX-License-Identifier: Apache-2.0
#include "client/auth_operations.h"

#include <fmt/format.h>

#include <utility>

#include "client/client_core.h"
#include "client/diagnosis.h"
#include "client/outgoing_data.h"

namespace keel::operations {

using protocols::AuthProxy;

namespace {

template <class Derived>
std::shared_ptr<Derived> sharedFrom(Derived& operation) {
  return std::static_pointer_cast<Derived>(operation.shared_from_this());
}

// Returns a text that is wiped when its last reference is released.
String secretText(const Secret& secret) {
  String text(secret.text());
  text.makeSecret();
  return text;
}

template <class T>
void finishOrFail(ClientCore& core, OperationOf<T>& it, bool inTime, const Error& error,
                  auto result) {
  if (!inTime) return;
  if (error) return core.finish<T>(it, std::unexpected(core.answerError(it, error)));
  if constexpr (std::is_void_v<T>) {
    core.finish<T>(it, {});
  } else {
    core.finish<T>(it, result());
  }
}

class CheckService final : public OperationOf<void> {
 public:
  std::string what() const override { return "say that it is alive"; }
  void send(ClientCore& core) override {
    core.ask<&AuthProxy::authServiceCheckWithHandler>(sharedFrom(*this), &answered);
  }

 private:
  static void answered(ClientCore& core, CheckService& it, bool inTime, const Error& error) {
    finishOrFail<void>(core, it, inTime, error, nullptr);
  }
};

class Authenticate final : public OperationOf<void> {
 public:
  Authenticate(String user, const Secret& password)
      : user_(std::move(user)), password_(secretText(password)) {
    bytes = user_.view().size() + password_.view().size();
    refusal = checkText(user_, "the user's name");
    if (!refusal) refusal = checkText(password_, "the password");
  }
  std::string what() const override {
    return fmt::format("authenticate {} by password", diagnosis::shownName(user_));
  }
  void send(ClientCore& core) override {
    core.ask<&AuthProxy::authenticateUser>(sharedFrom(*this), &answered, user_,
                                           std::exchange(password_, nullptr));
  }

 private:
  static void answered(ClientCore& core, Authenticate& it, bool inTime, const Error& error) {
    finishOrFail<void>(core, it, inTime, error, nullptr);
  }

  const String user_;
  String password_;
};

class AuthenticateByReference final : public OperationOf<void> {
 public:
  AuthenticateByReference(String user, Data form) : user_(std::move(user)), form_(std::move(form)) {
    bytes = user_.view().size() + form_.bytes().size();
    refusal = checkText(user_, "the user's name");
  }
  std::string what() const override {
    return fmt::format("authenticate {} by reference", diagnosis::shownName(user_));
  }
  void send(ClientCore& core) override {
    core.ask<&AuthProxy::authenticateForUser>(sharedFrom(*this), &answered, user_, form_);
  }

 private:
  static void answered(ClientCore& core, AuthenticateByReference& it, bool inTime,
                       const Error& error) {
    finishOrFail<void>(core, it, inTime, error, nullptr);
  }

  const String user_;
  const Data form_;
};

class DefaultRealm final : public OperationOf<std::string> {
 public:
  std::string what() const override { return "name its realm"; }
  void send(ClientCore& core) override {
    core.ask<&AuthProxy::authGetDefaultRealm>(sharedFrom(*this), &answered);
  }

 private:
  static void answered(ClientCore& core, DefaultRealm& it, bool inTime, const String& realm,
                       const Error& error) {
    finishOrFail<std::string>(core, it, inTime, error, [&] { return std::string(realm.view()); });
  }
};

class StartChallenge final : public OperationOf<AuthChallenge> {
 public:
  explicit StartChallenge(Scheme scheme) : scheme_(scheme) {}

  std::string what() const override {
    return scheme_ == Scheme::basic ? "start a basic challenge" : "start a digest challenge";
  }
  void send(ClientCore& core) override {
    if (scheme_ == Scheme::basic) {
      core.ask<&AuthProxy::authBasicStartWithHandler>(sharedFrom(*this), &answered);
    } else {
      core.ask<&AuthProxy::authDigestStartWithHandler>(sharedFrom(*this), &answered);
    }
  }

 private:
  static void answered(ClientCore& core, StartChallenge& it, bool inTime, const String& challenge,
                       const String& id, const Error& error) {
    finishOrFail<AuthChallenge>(core, it, inTime, error, [&] {
      return AuthChallenge{std::string(challenge.view()), std::string(id.view())};
    });
  }

  const Scheme scheme_;
};

class Validate final : public OperationOf<AuthProof> {
 public:
  Validate(const Secret& answer, const std::string& authID)
      : answer_(secretText(answer)), id_(authID) {
    bytes = answer_.view().size() + id_.view().size();
    refusal = checkText(answer_, "the answer");
    if (!refusal) refusal = checkText(id_, "the challenge's ID");
  }
  std::string what() const override { return "accept the answer to a challenge"; }
  void send(ClientCore& core) override {
    core.ask<&AuthProxy::authValidate>(sharedFrom(*this), &answered,
                                       std::exchange(answer_, nullptr), id_);
  }

 private:
  static void answered(ClientCore& core, Validate& it, bool inTime, const String& response,
                       const String& user, const Error& error) {
    finishOrFail<AuthProof>(core, it, inTime, error, [&] {
      AuthProof proof{std::string(user.view()), std::nullopt};
      if (!response.isNull()) proof.response = response.view();
      return proof;
    });
  }

  String answer_;
  const String id_;
};

class IsAuthenticated final : public OperationOf<bool> {
 public:
  explicit IsAuthenticated(std::int32_t auditSession) : auditSession_(auditSession) {}

  std::string what() const override {
    return fmt::format("look up audit session {}", auditSession_);
  }
  void send(ClientCore& core) override {
    core.ask<&AuthProxy::isAuthedASID>(sharedFrom(*this), &answered, auditSession_);
  }

 private:
  static void answered(ClientCore& core, IsAuthenticated& it, bool inTime, bool authenticated) {
    finishOrFail<bool>(core, it, inTime, nullptr, [&] { return authenticated; });
  }

  const std::int32_t auditSession_;
};

}  // namespace

std::shared_ptr<OperationOf<void>> checkService() {
  return std::make_shared<CheckService>();
}

std::shared_ptr<OperationOf<void>> authenticate(String user, const Secret& password) {
  return std::make_shared<Authenticate>(std::move(user), password);
}

std::shared_ptr<OperationOf<void>> authenticateByReference(String user, Data form) {
  return std::make_shared<AuthenticateByReference>(std::move(user), std::move(form));
}

std::shared_ptr<OperationOf<std::string>> defaultRealm() {
  return std::make_shared<DefaultRealm>();
}

std::shared_ptr<OperationOf<AuthChallenge>> startChallenge(Scheme scheme) {
  return std::make_shared<StartChallenge>(scheme);
}

std::shared_ptr<OperationOf<AuthProof>> validate(const Secret& answer, const std::string& id) {
  return std::make_shared<Validate>(answer, id);
}

std::shared_ptr<OperationOf<bool>> isAuthenticated(std::int32_t auditSession) {
  return std::make_shared<IsAuthenticated>(auditSession);
}

}  // namespace keel::operations
