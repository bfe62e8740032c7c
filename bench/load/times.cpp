// SPDX-License-Identifier: Apache-2.0
#include "bench/load/times.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace keel::bench {

double Times::quantile(double share) {
  if (all_.empty()) return 0;
  const double rank = std::ceil(share * static_cast<double>(all_.size()));
  const auto place = std::clamp(static_cast<std::size_t>(rank), std::size_t{1}, all_.size()) - 1;
  const auto wanted = std::next(all_.begin(), static_cast<std::ptrdiff_t>(place));
  std::ranges::nth_element(all_, wanted);
  return *wanted;
}

}  // namespace keel::bench
