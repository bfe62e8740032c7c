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

// Our unit files on disk, among foreign ones: only files with our marker are ever replaced or
// removed. On one thread.
class UnitStore {
 public:
  enum class Place : std::uint8_t {
    runtime,     // gone with the next boot
    persistent,  // takes precedence over `runtime`
  };
  struct Directories {
    std::string runtime = "/run/systemd/system";
    std::string persistent = "/etc/systemd/system";
  };

  // Contents of one of our files.
  struct Stored {
    Place place = Place::runtime;
    std::string text;
    // The fields after the marker; see job_units.h.
    std::string label;
    std::string machService;
    std::string enabled;
    std::vector<std::string> started;
  };
  enum class Standing : std::uint8_t { none, ours, foreign };

  explicit UnitStore(Directories directories);
  UnitStore() : UnitStore(Directories()) {}

  // Returns the owner of the file of that name in our directories; `stored`, if given, receives the
  // contents of one of ours. Whatever cannot be read, such as a link (a masked unit is one), is
  // foreign.
  Standing standingOf(const std::string& name, std::optional<Stored>* stored = nullptr) const;

  // Returns true if the folder has an entry of that name, even a dangling link.
  static bool exists(const std::string& folder, const std::string& name);

  // Writes the unit atomically; returns true if anything changed.
  std::expected<bool, Error> write(Place place, const Unit& unit);
  // Removes one of ours. No error if it is already gone.
  std::expected<void, Error> remove(Place place, const std::string& name);

  // Returns the label, escaped by unitNameOf(), of the job that owns that Mach service; empty if
  // none of ours does.
  std::string ownerOf(const std::string& machService);

 private:
  std::string pathOf(Place place, const std::string& name) const;
  void indexOwners(Place place);

  const Directories directories_;
  bool indexed_ = false;
  std::map<std::string, std::string, std::less<>>
      labelsByMachService_;  // both escaped by unitNameOf()
};

}  // namespace keel
