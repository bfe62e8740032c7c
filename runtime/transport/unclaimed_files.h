// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <vector>

#include "runtime/wire/limits.h"

namespace keel::xpc {

// Who holds received files whose message has not come whole yet: streams, with the user who answers for each. Lives on the
// thread of its streams. Holds at most a few more entries than there may be files, each for at least one.
template <class Stream, class User>
class UnclaimedFiles {
 public:
  // Notes how many files `stream` holds now.
  void note(Stream* stream, const User* user, std::size_t files) {
    const auto found = std::ranges::find(holders_, stream, &Holder::stream);
    if (found == holders_.end()) {
      if (files == 0) return;
      holders_.push_back({stream, user, files});
    } else {
      total_ -= found->files;
      found->files = files;
      if (files == 0) holders_.erase(found);
    }
    total_ += files;
  }

  // When there are too many: the stream that should go, which is the oldest holder of the user who holds most. Else null.
  Stream* offender() const {
    if (total_ <= limits::kUnclaimedDescriptors) return nullptr;
    std::map<const User*, std::size_t> filesByUser;
    for (const Holder& holder : holders_) filesByUser[holder.user] += holder.files;
    return std::ranges::max_element(holders_, {}, [&](const Holder& holder) { return filesByUser[holder.user]; })->stream;
  }

 private:
  struct Holder {
    Stream* stream;
    const User* user;
    std::size_t files;
  };

  std::vector<Holder> holders_;  // the oldest first
  std::size_t total_ = 0;
};

}  // namespace keel::xpc
