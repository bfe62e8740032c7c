// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/job_keys.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string_view>

#include "runtime/foundation/utf8.h"

namespace keel {

namespace {

using Read = std::expected<void, std::string>;
constexpr std::int64_t kSecondsLimit = std::int64_t{100} * 365 * 24 * 3600;

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7f;
}

Read readBoolean(const Value& value, bool& flag) {
  const bool* given = value.as<bool>();
  if (given == nullptr) return std::unexpected("must be true or false");
  flag = *given;
  return {};
}

std::expected<std::int64_t, std::string> integerOf(const Value& value, std::int64_t least,
                                                   std::int64_t most) {
  const auto* given = value.as<std::int64_t>();
  if (given == nullptr || *given < least || *given > most) {
    return std::unexpected(fmt::format("must be an integer from {} to {}", least, most));
  }
  return *given;
}

std::expected<std::chrono::seconds, std::string> secondsOf(const Value& value) {
  const auto given = integerOf(value, 0, kSecondsLimit);
  if (!given) return std::unexpected(given.error());
  return std::chrono::seconds(*given);
}

// The names that useradd(8) allows, and dots.
Read readAccount(const Value& value, std::string& account) {
  const auto* given = value.as<std::string>();
  const auto fits = [](char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || letter == '_' || letter == '.' || letter == '-';
  };
  if (given == nullptr || given->empty() || given->size() > 255 || given->front() == '-' ||
      given->front() == '.' || !std::ranges::all_of(*given, fits)) {
    return std::unexpected("must be the name of an account: letters, digits, and _ . -");
  }
  // Programs disagree on whether a numeric name is a name or an id.
  if (std::ranges::all_of(*given, [](char letter) { return letter >= '0' && letter <= '9'; })) {
    return std::unexpected("must be the name of an account, not its number");
  }
  account = *given;
  return {};
}

bool isVariableName(std::string_view name) {
  const auto fits = [](char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || letter == '_';
  };
  return !name.empty() && !(name.front() >= '0' && name.front() <= '9') &&
         std::ranges::all_of(name, fits);
}

Read readEnvironment(const Value& value, Job& job) {
  const auto* map = value.as<Value::Map>();
  if (map == nullptr) return std::unexpected("must be a dictionary");
  if (map->size() > kTextsCount)
    return std::unexpected(fmt::format("has more than {} variables", kTextsCount));
  std::size_t bytes = 0;
  for (const auto& [name, text] : *map) {
    const auto* given = text.as<std::string>();
    if (given == nullptr || !isJobText(*given)) return std::unexpected("must have texts");
    if (!isVariableName(name))
      return std::unexpected("has a name that is no variable's: letters, digits and _");
    bytes += name.size() + given->size() + 2;
    if (bytes > kTextsBytes)
      return std::unexpected(fmt::format("is larger than {} bytes", kTextsBytes));
    job.environment.emplace_back(name, *given);
  }
  return {};
}

Read readUmask(const Value& value, Job& job) {
  constexpr std::int64_t kMost = 0777;
  if (const auto* octal = value.as<std::string>()) {
    unsigned mask = 0;
    const char* end = octal->data() + octal->size();
    const auto [rest, problem] = std::from_chars(octal->data(), end, mask, 8);
    if (problem != std::errc() || rest != end || mask > kMost)
      return std::unexpected("as a text must be octal, up to 777");
    job.umask = mask;
    return {};
  }
  const auto given = integerOf(value, 0, kMost);
  if (!given) return std::unexpected(given.error());
  job.umask = static_cast<unsigned>(*given);
  return {};
}

struct Resource {
  const char* key;
  int resource;
  const char* name;
};
constexpr std::array<Resource, 9> kResources = {{{"Core", RLIMIT_CORE, "CORE"},
                                                 {"CPU", RLIMIT_CPU, "CPU"},
                                                 {"Data", RLIMIT_DATA, "DATA"},
                                                 {"FileSize", RLIMIT_FSIZE, "FSIZE"},
                                                 {"MemoryLock", RLIMIT_MEMLOCK, "MEMLOCK"},
                                                 {"NumberOfFiles", RLIMIT_NOFILE, "NOFILE"},
                                                 {"NumberOfProcesses", RLIMIT_NPROC, "NPROC"},
                                                 {"ResidentSetSize", RLIMIT_RSS, "RSS"},
                                                 {"Stack", RLIMIT_STACK, "STACK"}}};

Read readLimits(const std::string& key, const Value& value, Job& job) {
  const auto* map = value.as<Value::Map>();
  if (map == nullptr) return std::unexpected("must be a dictionary");
  for (const auto& [name, number] : *map) {
    const auto known =
        std::ranges::find_if(kResources, [&](const Resource& each) { return name == each.key; });
    if (known == kResources.end()) {
      job.unsupported.push_back(key + "." + name);
      continue;
    }
    const auto given = integerOf(number, 0, std::numeric_limits<std::int64_t>::max());
    if (!given) return std::unexpected(fmt::format("{} {}", name, given.error()));
    const auto bound = static_cast<std::uint64_t>(*given);
    auto limit = std::ranges::find(job.limits, known->resource, &Job::Limit::resource);
    if (limit == job.limits.end()) {
      limit = job.limits.insert(limit, Job::Limit{known->resource, known->name, bound, bound});
    } else {
      (key == "SoftResourceLimits" ? limit->soft : limit->hard) = bound;
      if (limit->soft > limit->hard)
        return std::unexpected(fmt::format("{}: the soft limit is above the hard one", name));
    }
  }
  return {};
}

Read readKeepAlive(const Value& value, Job& job) {
  if (const bool* flag = value.as<bool>()) {
    job.restart = *flag ? Job::Restart::always : Job::Restart::never;
    return {};
  }
  const auto* map = value.as<Value::Map>();
  if (map == nullptr) return std::unexpected("must be true, false or a dictionary");
  for (const auto& [key, condition] : *map) {
    const bool* flag = condition.as<bool>();
    if (key == "SuccessfulExit" && flag != nullptr) {
      job.restart = *flag ? Job::Restart::afterSuccess : Job::Restart::afterFailure;
    } else if (key == "Crashed" && flag != nullptr && *flag && job.restart == Job::Restart::never) {
      job.restart = Job::Restart::afterCrash;
    } else if (key == "Crashed" && flag != nullptr && *flag &&
               job.restart == Job::Restart::afterFailure) {
      // A crash is also a failure.
    } else if (key == "AfterInitialDemand" && flag != nullptr) {
      job.afterInitialDemand = *flag;
    } else {
      job.unsupported.push_back("KeepAlive." + key);
    }
  }
  return {};
}

Read readProcessType(const Value& value, Job& job) {
  const auto* type = value.as<std::string>();
  if (type == nullptr) return std::unexpected("must be a text");
  // The other types do not restrict the job.
  if (*type == "Background") {
    job.background = true;
  } else if (*type != "Standard" && *type != "Adaptive" && *type != "Interactive") {
    return std::unexpected("must be Standard, Background, Adaptive or Interactive");
  }
  return {};
}

template <class T>
Read take(std::expected<T, std::string> given, std::optional<T>& place) {
  if (!given) return std::unexpected(given.error());
  place = *given;
  return {};
}

Read readThrottle(const Value& value, Job& job) {
  const auto given = secondsOf(value);
  if (!given) return std::unexpected(given.error());
  job.throttleInterval = *given;
  return {};
}

Read readNice(const Value& value, Job& job) {
  const auto given = integerOf(value, -20, 19);
  if (!given) return std::unexpected(given.error());
  job.nice = static_cast<int>(*given);
  return {};
}

// Keys without effect here. A job is enabled by enabling it, and a program that exits when idle
// needs no support.
Read readWithoutEffect(const Value& value, Job&) {
  bool flag = false;
  return readBoolean(value, flag);
}

struct Key {
  std::string_view name;
  Read (*read)(const Value& value, Job& job);
};
constexpr std::array kKeys = {
    Key{"AbandonProcessGroup",
        [](const Value& value, Job& job) { return readBoolean(value, job.abandonProcessGroup); }},
    Key{"Disabled", readWithoutEffect},
    Key{"EnablePressuredExit", readWithoutEffect},
    Key{"EnableTransactions", readWithoutEffect},
    Key{"EnvironmentVariables", readEnvironment},
    Key{"ExitTimeOut",
        [](const Value& value, Job& job) { return take(secondsOf(value), job.exitTimeOut); }},
    Key{"GroupName",
        [](const Value& value, Job& job) { return readAccount(value, job.groupName); }},
    Key{"HardResourceLimits",
        [](const Value& value, Job& job) { return readLimits("HardResourceLimits", value, job); }},
    Key{"KeepAlive", readKeepAlive},
    Key{"LowPriorityIO",
        [](const Value& value, Job& job) { return readBoolean(value, job.lowPriorityIO); }},
    Key{"Nice", readNice},
    Key{"ProcessType", readProcessType},
    Key{"RootDirectory",
        [](const Value& value, Job& job) { return readPath(value, job.rootDirectory); }},
    Key{"RunAtLoad",
        [](const Value& value, Job& job) { return readBoolean(value, job.runAtLoad); }},
    Key{"SoftResourceLimits",
        [](const Value& value, Job& job) { return readLimits("SoftResourceLimits", value, job); }},
    Key{"StandardErrorPath",
        [](const Value& value, Job& job) { return readPath(value, job.standardErrorPath); }},
    Key{"StandardInPath",
        [](const Value& value, Job& job) { return readPath(value, job.standardInPath); }},
    Key{"StandardOutPath",
        [](const Value& value, Job& job) { return readPath(value, job.standardOutPath); }},
    Key{"ThrottleInterval", readThrottle},
    Key{"Transient",
        [](const Value& value, Job& job) { return readBoolean(value, job.transient); }},
    Key{"Umask", readUmask},
    Key{"UserName", [](const Value& value, Job& job) { return readAccount(value, job.userName); }},
    Key{"WorkingDirectory",
        [](const Value& value, Job& job) { return readPath(value, job.workingDirectory); }},
};

}  // namespace

Read readJobKey(const std::string& key, const Value& value, Job& job) {
  const auto known = std::ranges::find(kKeys, key, &Key::name);
  if (known != kKeys.end()) return known->read(value, job);
  job.unsupported.push_back(key);
  return {};
}

void settleJob(Job& job) {
  if (job.afterInitialDemand && job.restart == Job::Restart::never)
    job.restart = Job::Restart::always;
  // Keeping a program running implies starting it; only a job restarted solely after crashes waits
  // for its first demand.
  const bool keptFromTheStart =
      job.restart != Job::Restart::never && job.restart != Job::Restart::afterCrash;
  if (keptFromTheStart && !job.afterInitialDemand) job.runAtLoad = true;
}

bool isJobText(const std::string& text) {
  return isUtf8(text) && text.find('\0') == std::string::npos;
}

Read readTexts(const Value& value, std::vector<std::string>& texts) {
  const auto* list = value.as<Value::List>();
  if (list == nullptr) return std::unexpected("must be an array of texts");
  if (list->size() > kTextsCount)
    return std::unexpected(fmt::format("has more than {} texts", kTextsCount));
  std::size_t bytes = 0;
  for (const Value& each : *list) {
    const auto* text = each.as<std::string>();
    if (text == nullptr || !isJobText(*text)) return std::unexpected("must be an array of texts");
    bytes += text->size() + 1;
    if (bytes > kTextsBytes)
      return std::unexpected(fmt::format("is larger than {} bytes", kTextsBytes));
    texts.push_back(*text);
  }
  return {};
}

Read readPath(const Value& value, std::string& path) {
  const auto* text = value.as<std::string>();
  if (text == nullptr || !text->starts_with('/'))
    return std::unexpected("must be an absolute path");
  if (text->size() > kPathBytes)
    return std::unexpected(fmt::format("is longer than {} bytes", kPathBytes));
  if (!isJobText(*text) || std::ranges::any_of(*text, isControl) || text->ends_with(' ') ||
      text->ends_with('\\')) {
    return std::unexpected(
        "must be a path without control characters, and without a blank or a backslash at its end");
  }
  path = *text;
  return {};
}

}  // namespace keel
