// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/uio.h>

#include <string>
#include <vector>

#include "runtime/logging/log_system.h"

namespace keel {

// Returns the fields of a message's journal entry, each "NAME=value": MESSAGE, escaped so that it
// cannot affect a terminal or forge a line, PRIORITY, SUBSYSTEM, CATEGORY, and KEEL_UID if a user
// caused it.
std::vector<std::string> journalFields(const LogMessage& message);

// Sends entries with `send`, which has the signature and result of sd_journal_sendv(3).
class JournalOutput : public LogOutput {
 public:
  using Send = int (*)(const iovec* fields, int count);

  explicit JournalOutput(Send send) : send_(send) {}
  bool write(const LogMessage& message) override;

 private:
  const Send send_;
};

}  // namespace keel
