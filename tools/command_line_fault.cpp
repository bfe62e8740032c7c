// SPDX-License-Identifier: Apache-2.0
#include "tools/command_line_fault.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "client/shown_text.h"
#include "tools/nearest_word.h"

namespace keel {

namespace {

constexpr std::size_t kShownWordColumns = 60;

std::string notWanted(const std::string& wanted, const std::string& text) {
  return fmt::format("{} is wanted, not {}", wanted, shownText(text, kShownWordColumns));
}

// The parser itself saturates numbers out of range, and accepts -1 as the largest unsigned number.
template <class Number>
bool isNumber(const std::string& text, Number (*parse)(const char*, char**, int), Number least,
              Number most) {
  char* end = nullptr;
  errno = 0;
  const Number number = parse(text.c_str(), &end, 0);
  return !text.empty() && end == text.c_str() + text.size() && errno == 0 && number >= least &&
         number <= most;
}

// Returns the command that was parsed, or `app` itself.
const CLI::App& innermost(const CLI::App& app) {
  const auto named = app.get_subcommands();
  return named.empty() ? app : innermost(*named.front());
}

std::string pathOf(const CLI::App& command) {
  return command.get_parent() == nullptr ? command.get_name()
                                         : pathOf(*command.get_parent()) + " " + command.get_name();
}

std::vector<std::string> commandsOf(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::App* each : command.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(each->get_name());
  return names;
}

std::vector<std::string> optionsOf(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

bool isOption(const std::string& word) {
  return word.size() > 1 && word.starts_with('-');
}

std::string withSuggestion(std::string message, const std::string& nearest) {
  if (!nearest.empty()) message += fmt::format(" (did you mean {}?)", nearest);
  return message;
}

std::string misplaced(const CLI::App& command, const std::string& word) {
  if (isOption(word)) {
    const std::string name = word.substr(0, word.find('='));
    const std::string shown = shownText(name, kShownWordColumns);
    const auto known = optionsOf(command);
    if (std::ranges::find(known, name) != known.end())
      return fmt::format("{} belongs behind {}", shown, pathOf(command));
    return withSuggestion("unknown option " + shown, nearestWord(name, known));
  }
  const std::string shown = shownText(word, kShownWordColumns);
  const auto commands = commandsOf(command);
  if (commands.empty()) return "unexpected word " + shown;
  return withSuggestion("unknown command " + shown, nearestWord(word, commands));
}

// Replaces the parser's message about a missing argument, and its names for arguments.
std::string missing(const CLI::App& command, std::string name) {
  if (const auto commands = commandsOf(command); !commands.empty()) {
    return fmt::format("a command is missing, one of {}", fmt::join(commands, ", "));
  }
  return (name == "--name" ? "NAME" : std::move(name)) + " is missing";
}

std::string explanation(const CLI::App& app, const CLI::ParseError& fault,
                        const std::vector<std::string>& arguments) {
  const auto left = app.remaining(/*recurse=*/true);
  const auto first = std::ranges::find_first_of(arguments, left);
  if (first != arguments.end()) return misplaced(innermost(app), *first);
  const std::string words = fault.what();
  if (dynamic_cast<const CLI::RequiredError*>(&fault) != nullptr) {
    return missing(innermost(app), words.substr(0, words.rfind(" is required")));
  }
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&fault) != nullptr)
    return words.substr(0, words.find(':')) + " needs a value";
  // Only flags get here: all other options have validators that fail first.
  constexpr std::string_view kUnconverted = "Could not convert: ";
  if (words.starts_with(kUnconverted)) {
    const auto end = words.find(' ', kUnconverted.size());
    return words.substr(kUnconverted.size(), end - kUnconverted.size()) + " takes no value";
  }
  return words;
}

}  // namespace

CLI::Validator wholeNumber(std::int64_t least, std::int64_t most) {
  const auto check = [least, most](const std::string& text) {
    if (isNumber<long>(text, &std::strtol, least, most)) return std::string();
    return notWanted(fmt::format("a whole number from {} to {}", least, most), text);
  };
  return CLI::Validator(check, "");
}

CLI::Validator unsignedNumber() {
  const auto check = [](const std::string& text) {
    const bool isFit =
        !text.contains('-') &&
        isNumber<unsigned long>(text, &std::strtoul, 0, std::numeric_limits<unsigned long>::max());
    return isFit ? std::string() : notWanted("a whole number from 0 on", text);
  };
  return CLI::Validator(check, "");
}

CLI::Validator seconds() {
  const auto check = [](const std::string& text) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const bool isFit =
        !text.empty() && end == text.c_str() + text.size() && std::isfinite(number) && number >= 0;
    return isFit ? std::string() : notWanted("a number of seconds from 0 on", text);
  };
  return CLI::Validator(check, "");
}

CommandLineFault explained(const CLI::App& app, const CLI::ParseError& fault,
                           const std::vector<std::string>& arguments) {
  return {explanation(app, fault, arguments), pathOf(innermost(app))};
}

}  // namespace keel
