// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdlib.h>
#include <time.h>

#include <optional>
#include <string>

namespace keel {

// Sets the time zone of this process, for tests, and restores the former one on destruction. A zone
// given as a rule ("CET-1") needs no time zone files.
class LocalZone {
 public:
  explicit LocalZone(const char* zone) {
    if (const char* before = ::getenv("TZ")) before_ = before;
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  LocalZone(const LocalZone&) = delete;
  LocalZone& operator=(const LocalZone&) = delete;
  ~LocalZone() {
    if (before_) {
      ::setenv("TZ", before_->c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }

 private:
  std::optional<std::string> before_;
};

}  // namespace keel
