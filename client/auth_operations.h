// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "client/auth_client.h"
#include "client/operation.h"

// The requests of KLNAuthClient as operations. Their arguments are checked on creation, on the
// caller's thread.

namespace keel::operations {

std::shared_ptr<OperationOf<void>> checkService();
std::shared_ptr<OperationOf<void>> authenticate(String user, const Secret& password);
std::shared_ptr<OperationOf<void>> authenticateByReference(String user, Data form);
std::shared_ptr<OperationOf<std::string>> defaultRealm();

enum class Scheme : std::uint8_t { basic, digest };
std::shared_ptr<OperationOf<AuthChallenge>> startChallenge(Scheme scheme);
std::shared_ptr<OperationOf<AuthProof>> validate(const Secret& answer, const std::string& id);

std::shared_ptr<OperationOf<bool>> isAuthenticated(std::int32_t auditSession);

}  // namespace keel::operations
