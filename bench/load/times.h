// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

namespace keel::bench {

// Measured times in microseconds.
class Times {
 public:
  void add(double microseconds) { all_.push_back(microseconds); }
  void clear() { all_.clear(); }
  std::size_t count() const { return all_.size(); }
  // Returns the quantile `share` (0.5: the median); 0 if there are no times.
  double quantile(double share);

 private:
  std::vector<double> all_;
};

}  // namespace keel::bench
