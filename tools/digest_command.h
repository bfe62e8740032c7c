// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "platform/authenticator/authenticator.h"
#include "platform/authenticator/digest_file.h"
#include "tools/session.h"

// keelctl digest set, list, remove: edit the file of digest credentials that keeld reads. They work
// without a running keeld.

namespace keel {

struct DigestOptions {
  std::string file = kDigestFile;
  std::string user;
  std::string realm = kDefaultRealm;
  std::optional<int> passwordDescriptor;  // none: prompts on the terminal
};

int digestSetCommand(Console& console, const DigestOptions& options);
int digestListCommand(Console& console, const CommonOptions& common, const DigestOptions& options);
int digestRemoveCommand(Console& console, const DigestOptions& options);

}  // namespace keel
