// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace keel {

// Returns true if two counted references, strong or weak, are to the same object, dead or alive.
// Touches no reference count.
template <class Left, class Right>
bool sameObject(const Left& left, const Right& right) {
  return !left.owner_before(right) && !right.owner_before(left);
}

}  // namespace keel
