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
  // The time that `share` of them do not exceed (0.5: the median); 0 when there are none.
  double quantile(double share);

 private:
  std::vector<double> all_;
};

}  // namespace keel::bench
