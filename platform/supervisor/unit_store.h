// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/supervisor/job_units.h"
#include "runtime/foundation/error.h"

namespace keel {

// The files of our units on disk, among those of others: only what carries our mark is ever
// replaced or removed. On one thread.
class UnitStore {
 public:
  enum class Place : std::uint8_t {
    runtime,     // gone with the next boot
    persistent,  // goes before what is in `runtime`
  };
  struct Directories {
    std::string runtime = "/run/systemd/system";
    std::string persistent = "/etc/systemd/system";
  };

  // What stands in a file of ours.
  struct Stored {
    Place place = Place::runtime;
    std::string text;
    // The notes behind the mark; see job_units.h.
    std::string label;
    std::string machService;
    std::string enabled;
    std::vector<std::string> started;
  };
  enum class Standing : std::uint8_t { none, ours, foreign };

  explicit UnitStore(Directories directories);
  UnitStore() : UnitStore(Directories()) {}

  // Whose is the file of that name in our directories? `stored`, if given, gets what is in one of
  // ours. Whatever cannot be read, such as a link (a masked unit is one), is foreign.
  Standing standingOf(const std::string& name, std::optional<Stored>* stored = nullptr) const;

  // Whether there is anything of that name in the folder, a link that leads nowhere too.
  static bool exists(const std::string& folder, const std::string& name);

  // Puts the unit there; true when that changed something. A reader finds the old text or the new
  // one, whole.
  std::expected<bool, Error> write(Place place, const Unit& unit);
  // One of ours. No error when it is gone already.
  std::expected<void, Error> remove(Place place, const std::string& name);

  // The label, as unitNameOf() writes it, of the job that has that Mach service; empty when none of
  // ours has.
  std::string ownerOf(const std::string& machService);

 private:
  std::string pathOf(Place place, const std::string& name) const;
  void indexOwners(Place place);

  const Directories directories_;
  bool indexed_ = false;
  std::map<std::string, std::string, std::less<>>
      labelsByMachService_;  // as unitNameOf() writes both
};

}  // namespace keel
