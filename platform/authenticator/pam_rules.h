// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// What the files of PAM services say, as far as keel-pam has to know: whether a service has rules
// of its own for a question. For one without any PAM would silently take those of the service
// "other".
class PamRules {
 public:
  // Files within files. PAM allows more; nobody has them.
  static constexpr std::size_t kDepth = 8;
  // Looked at for one question, the same one counted each time: a file that includes itself over
  // and over ends here.
  static constexpr std::size_t kFileCount = 64;

  // Of the services whose files are in `directory`.
  explicit PamRules(std::string directory) : directory_(std::move(directory)) {}

  // Whether `service` has a rule of that type ("auth", "account"), in its file or in one that this
  // includes. Included files count when they are in the directory too, and named without it. A rule
  // that begins with "-" does not count: PAM may leave it out.
  bool has(const std::string& service, std::string_view type) const;

 private:
  bool has(const std::string& service, std::string_view type, std::size_t depth,
           std::size_t& filesLeft) const;

  const std::string directory_;
};

}  // namespace keel
