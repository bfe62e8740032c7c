// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdlib.h>
#include <time.h>

#include <optional>
#include <string>

namespace keel {

// Another time zone for this process, for tests; the former one is back at its end. A zone that is
// given as a rule ("CET-1") needs no file of the system.
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
