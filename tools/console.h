// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

#include "tools/json_value.h"

namespace keel {

// Where keelctl reads and writes: three descriptors, borrowed. On one thread.
class Console {
 public:
  Console(int input, int output, int errors);

  int input() const { return input_; }
  int output() const { return output_; }
  // Whether a person reads the output, and whether in colour (a terminal, and NO_COLOR is not set).
  bool isTerminal() const { return isTerminal_; }
  bool inColour() const { return inColour_; }
  // How many columns text for people may take: the width of the terminal, 80 elsewhere.
  std::size_t columns() const;
  // How JSON is written there: letters that a terminal may act upon are escaped.
  JsonLetters letters() const { return isTerminal_ ? JsonLetters::ascii : JsonLetters::utf8; }

  // Writes text to the output. False when nobody reads it any more, or it cannot be written, now or
  // before.
  bool write(std::string_view text);
  bool writeLine(std::string line);
  // The errno of the write that failed, 0 for none. A reader that went away is no failure: it has
  // what it wanted.
  int outputError() const { return outputError_; }
  // "keelctl: TEXT" for a person, on the error output.
  void note(std::string_view text);
  // A line of its own on the error output.
  void status(std::string_view text);

  // `text` in bold or dim, where there is colour.
  std::string bold(std::string text) const;
  std::string dim(std::string text) const;

 private:
  const int input_;
  const int output_;
  const int errors_;
  const bool isTerminal_;
  const bool inColour_;
  bool outputGone_ = false;
  int outputError_ = 0;
};

}  // namespace keel
