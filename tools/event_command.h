// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <vector>

namespace keel {

// Runs the program of `keelctl subscribe ... -- PROGRAM` for each event.
class EventCommand {
 public:
  // A name longer than this, or with a zero byte, is omitted from the environment.
  static constexpr std::size_t kNameBytes = 64u << 10;

  explicit EventCommand(std::vector<std::string> words) : words_(std::move(words)) {}

  // Runs it with `input` as its standard input, KEELCTL_NAME and KEELCTL_EVENT set, and waits for
  // its end. Returns its exit status, or 128 plus the number of the signal that ended it. Fails
  // with the reason if it cannot be started.
  std::expected<int, std::string> run(const std::string& name, const std::string& event,
                                      const std::string& input) const;

 private:
  std::vector<std::string> words_;
};

}  // namespace keel
