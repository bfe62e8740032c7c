// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/job.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/product/product.h"
#include "platform/supervisor/job_keys.h"
#include "platform/supervisor/supervisor_error.h"
#include "platform/supervisor/unit_text.h"

namespace keel {

namespace {

constexpr std::size_t kShownNameBytes = 100;
constexpr std::array<std::string_view, 4> kKeysReadFirst = {"Label", "Program", "ProgramArguments",
                                                            "MachServices"};

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7f;
}

// Returns the prefix of all error texts about one job.
std::string nameOf(const Value& dictionary) {
  const auto* label =
      dictionary.find("Label") != nullptr ? dictionary.find("Label")->as<std::string>() : nullptr;
  if (label == nullptr) return "the job";
  std::size_t end = std::min(label->size(), kShownNameBytes);
  // Cut between characters: the text must stay valid UTF-8.
  while (end > 0 && end < label->size() &&
         (static_cast<unsigned char>((*label)[end]) & 0xc0) == 0x80)
    --end;
  std::string shown = label->substr(0, end);
  std::ranges::replace_if(shown, isControl, '?');
  return fmt::format("the job \"{}\"{}", shown, label->size() > kShownNameBytes ? "..." : "");
}

std::expected<void, std::string> readProgram(const Value& dictionary, Job& job) {
  const Value* const program = dictionary.find("Program");
  const Value* const arguments = dictionary.find("ProgramArguments");
  if (program == nullptr && arguments == nullptr)
    return std::unexpected("has neither \"Program\" nor \"ProgramArguments\"");
  if (arguments != nullptr) {
    if (auto read = readTexts(*arguments, job.arguments); !read)
      return std::unexpected("\"ProgramArguments\" " + read.error());
    if (job.arguments.empty()) return std::unexpected("\"ProgramArguments\" is empty");
  }
  const Value first = program != nullptr ? *program : Value(job.arguments.front());
  if (auto read = readPath(first, job.program); !read) {
    return std::unexpected(
        (program != nullptr ? "\"Program\" " : "the first of \"ProgramArguments\" ") +
        read.error());
  }
  if (job.arguments.empty()) job.arguments.push_back(job.program);
  return {};
}

std::expected<void, std::string> readMachServices(const Value& dictionary, Job& job) {
  const Value* const services = dictionary.find("MachServices");
  if (services == nullptr) return {};
  const auto* map = services->as<Value::Map>();
  if (map == nullptr) return std::unexpected("\"MachServices\" must be a dictionary");
  if (map->size() > kMachServiceCount) {
    return std::unexpected(fmt::format("\"MachServices\" has {} names; at most {} can be",
                                       map->size(), kMachServiceCount));
  }
  for (const auto& [name, options] : *map) {
    if (std::string problem = problemOfMachService(name); !problem.empty())
      return std::unexpected(std::move(problem));
    if (std::ranges::find(job.machServices, name) != job.machServices.end())
      return std::unexpected("a name stands twice in \"MachServices\"");
    job.machServices.push_back(name);
    if (const auto* details = options.as<Value::Map>(); details != nullptr && !details->empty()) {
      job.unsupported.push_back("MachServices." + name);
    }
  }
  return {};
}

std::expected<void, std::string> readAll(const Value& dictionary, Job& job) {
  const Value* const label = dictionary.find("Label");
  if (label == nullptr) return std::unexpected("has no key \"Label\"");
  if (label->as<std::string>() == nullptr)
    return std::unexpected("must have a text under \"Label\"");
  job.label = *label->as<std::string>();
  if (std::string problem = problemOfJobLabel(job.label); !problem.empty())
    return std::unexpected(std::move(problem));
  if (auto read = readProgram(dictionary, job); !read) return read;
  if (auto read = readMachServices(dictionary, job); !read) return read;
  for (const auto& [key, value] : *dictionary.as<Value::Map>()) {
    if (std::ranges::find(kKeysReadFirst, key) != kKeysReadFirst.end()) continue;
    if (auto read = readJobKey(key, value, job); !read)
      return std::unexpected(fmt::format("\"{}\" {}", key, read.error()));
  }
  settleJob(job);
  return {};
}

}  // namespace

std::expected<Job, Error> jobOf(const Value& dictionary) {
  if (!dictionary.isMap())
    return std::unexpected(supervisorError(EINVAL, "the job is no dictionary"));
  Job job;
  if (auto read = readAll(dictionary, job); !read) {
    return std::unexpected(
        supervisorError(EINVAL, fmt::format("{}: {}", nameOf(dictionary), read.error())));
  }
  return job;
}

std::string problemOfJobLabel(const std::string& label) {
  if (label.empty()) return "has an empty label";
  if (label.size() > kLabelBytes || unitNameOf(label).size() > kLabelBytes) {
    return fmt::format(
        "has a label of {} bytes; at most {} can be, with what is not a letter or digit counted "
        "three times",
        label.size(), kLabelBytes);
  }
  if (!isJobText(label)) return "has a label that is no text";
  return {};
}

std::string problemOfMachService(const std::string& name) {
  if (name.empty()) return "a Mach service has an empty name";
  if (name.size() > kMachServiceNameBytes) {
    return fmt::format("a Mach service has a name of {} bytes; at most {} can be", name.size(),
                       kMachServiceNameBytes);
  }
  // A colon separates names in LISTEN_FDNAMES, a slash separates folders, and a trailing backslash
  // joins lines; a leading dot hides the file.
  const auto unfit = [](char character) {
    return character <= ' ' || character > '~' || character == '/' || character == ':' ||
           character == '\\';
  };
  if (std::ranges::any_of(name, unfit) || name.front() == '.') {
    return "a Mach service's name consists of printable ASCII other than / : and \\, and does not "
           "begin with a dot";
  }
  if (name == kNotifyServiceName || name == kAuthServiceName)
    return fmt::format("{} is keeld's own service", name);
  return {};
}

}  // namespace keel
