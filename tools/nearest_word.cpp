// SPDX-License-Identifier: Apache-2.0
#include "tools/nearest_word.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace keel {

namespace {

constexpr std::size_t kLettersForASlip = 3;
constexpr std::size_t kLongestWord = 64;

// Returns the optimal string alignment distance between two words.
std::size_t distanceOf(std::string_view left, std::string_view right) {
  std::vector<std::size_t> before(right.size() + 1), last(right.size() + 1), row(right.size() + 1);
  for (std::size_t j = 0; j <= right.size(); ++j) last[j] = j;
  for (std::size_t i = 1; i <= left.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= right.size(); ++j) {
      const std::size_t replaced = last[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
      const bool swapped =
          i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1];
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    std::swap(before, last);
    std::swap(last, row);
  }
  return last[right.size()];
}

}  // namespace

std::string nearestWord(std::string_view typed, const std::vector<std::string>& known) {
  if (typed.empty() || typed.size() > kLongestWord) return {};
  std::string nearest;
  std::size_t least = std::max<std::size_t>(typed.size() / kLettersForASlip, 1) + 1;
  for (const std::string& word : known) {
    const std::size_t distance =
        typed.size() > 1 && word.starts_with(typed) ? 1 : distanceOf(typed, word);
    // A word of one letter would be one typo away from every other.
    if (distance >= least || distance >= word.size()) continue;
    least = distance;
    nearest = word;
  }
  return nearest;
}

}  // namespace keel
