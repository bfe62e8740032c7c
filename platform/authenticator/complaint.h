// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>
#include <string>

namespace keel {

// What is wrong with the environment right now, written to the log (category "auth", error level)
// once: not for each of the attempts that it fails, of which clients can make any number. From any
// thread.
class Complaint {
 public:
  // Empty: all is well, so that the next complaint is written whatever it is.
  void now(std::string text);

 private:
  std::mutex mutex_;
  std::string last_;  // under mutex_
};

}  // namespace keel
