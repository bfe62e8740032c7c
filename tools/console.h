// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

#include "tools/json_value.h"

namespace keel {

// keelctl's standard streams: three descriptors, borrowed. Used on one thread.
class Console {
 public:
  Console(int input, int output, int errors);

  int input() const { return input_; }
  int output() const { return output_; }
  // Return true if the output is a terminal, and if it takes colour (NO_COLOR is not set).
  bool isTerminal() const { return isTerminal_; }
  bool inColour() const { return inColour_; }
  // Returns the width for text: the terminal's, 80 columns elsewhere.
  std::size_t columns() const;
  // Returns the character set of JSON output: for a terminal all but ASCII is escaped.
  JsonLetters letters() const { return isTerminal_ ? JsonLetters::ascii : JsonLetters::utf8; }

  // Writes text to the output. Returns false if this or an earlier write failed, or the reader is
  // gone.
  bool write(std::string_view text);
  bool writeLine(std::string line);
  // Returns the errno of the failed write, 0 for none. A reader that is gone (EPIPE) is no failure:
  // it has read what it wanted.
  int outputError() const { return outputError_; }
  // Writes "keelctl: TEXT" to the error output.
  void note(std::string_view text);
  // Writes a line to the error output.
  void status(std::string_view text);

  // Return `text` in bold or dim if the output takes colour.
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
