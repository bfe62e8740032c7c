// SPDX-License-Identifier: Apache-2.0
#include "bench/load/result.h"

#include <fmt/format.h>

namespace keel::bench {

std::string Result::toJson() const {
  std::string text;
  for (const auto& [name, value] : figures_)
    text += fmt::format("{}\"{}\": {:.6g}", text.empty() ? "" : ", ", name, value);
  return "{" + text + "}";
}

}  // namespace keel::bench
