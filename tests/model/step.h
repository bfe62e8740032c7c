// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <rapidcheck.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"

namespace keel::model {

// The names that the steps use; nullopt is the null name.
using ModelName = std::optional<std::string>;
inline const std::vector<ModelName> kNames = {"a", "b", "_all", std::nullopt};

// Number of clients. A client that dies is replaced by a new one.
inline constexpr std::size_t kClientCount = 4;

// One step of a sequence. Every step is valid in every state.
template <class Kind>
struct Step {
  Kind kind;
  std::size_t client;
  ModelName name;
  std::optional<int> value;  // nullopt: null data
  bool flag;
};

// Generates sequences of steps with these weights of kinds, four times RapidCheck's default length.
template <class Kind>
rc::Gen<std::vector<Step<Kind>>> sequencesOf(std::vector<std::pair<std::size_t, Kind>> weights) {
  std::vector<Kind> kinds;
  for (const auto& [weight, kind] : weights) kinds.insert(kinds.end(), weight, kind);
  const auto step = rc::gen::map(
      rc::gen::tuple(
          rc::gen::elementOf(kinds), rc::gen::inRange<std::size_t>(0, kClientCount),
          rc::gen::weightedElement<std::size_t>({{6, 0}, {3, 1}, {2, 2}, {1, 3}}),
          rc::gen::weightedOneOf<int>({{9, rc::gen::inRange(0, 100)}, {1, rc::gen::just(-1)}}),
          rc::gen::arbitrary<bool>()),
      [](const std::tuple<Kind, std::size_t, std::size_t, int, bool>& drawn) {
        const auto& [kind, client, name, value, flag] = drawn;
        return Step<Kind>{kind, client, kNames[name],
                          value < 0 ? std::nullopt : std::optional(value), flag};
      });
  return rc::gen::scale(4.0, rc::gen::container<std::vector<Step<Kind>>>(step));
}

// Convert the steps' names and values for the daemon, and its answers into comparable texts.
Name toName(const ModelName& name);
Dictionary toData(std::optional<int> value);
std::string textOf(const ModelName& name);
std::string textOfData(std::optional<int> value);
std::string textOf(const Error& error);
std::string textOfError(int code, std::string_view description = {});
std::string updateText(std::string_view name, std::string_view data);

template <class Kind>
void showValue(const Step<Kind>& step, std::ostream& stream) {
  stream << textOf(step.kind) << " client " << step.client << " name " << textOf(step.name)
         << " data " << textOfData(step.value) << (step.flag ? " flag" : "");
}

}  // namespace keel::model
