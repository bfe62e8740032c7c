// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace keel::siege {

// Times in milliseconds.
class MeasuredTimes {
 public:
  void add(double milliseconds) { all_.push_back(milliseconds); }
  std::size_t count() const { return all_.size(); }
  // Returns the time that `share` of them do not exceed (0.5: the median); 0 if there are none.
  double quantile(double share) {
    if (all_.empty()) return 0;
    std::ranges::sort(all_);
    const auto index = static_cast<std::size_t>(share * static_cast<double>(all_.size()));
    return all_[std::min(index, all_.size() - 1)];
  }

 private:
  std::vector<double> all_;
};

}  // namespace keel::siege
