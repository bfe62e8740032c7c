// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace keel::bench {

// The result of a run: figures by name, with the unit in the name.
class Result {
 public:
  void add(std::string name, double value) { figures_.emplace_back(std::move(name), value); }
  // Returns one line of JSON.
  std::string toJson() const;

 private:
  std::vector<std::pair<std::string, double>> figures_;
};

}  // namespace keel::bench
