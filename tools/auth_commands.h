// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/session.h"

// keelctl auth: proves that a user is an administrator, by each method that keeld offers, and
// queries proofs. A proof holds in the audit session of this process.

namespace keel {

struct AuthOptions {
  std::string user;
  std::optional<int> passwordDescriptor;  // none: prompts on the terminal
  bool interactive = false;
  std::optional<std::int32_t> auditSession;  // none: this process's
};

int authAliveCommand(Console& console, const CommonOptions& common);
int authRealmCommand(Console& console, const CommonOptions& common);
int authSessionCommand(Console& console, const CommonOptions& common, const AuthOptions& options);

int authPasswordCommand(Console& console, const CommonOptions& common, const AuthOptions& options);
int authBasicCommand(Console& console, const CommonOptions& common, const AuthOptions& options);
int authDigestCommand(Console& console, const CommonOptions& common, const AuthOptions& options);
int authReferenceCommand(Console& console, const CommonOptions& common, const AuthOptions& options);

}  // namespace keel
