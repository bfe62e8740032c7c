// SPDX-License-Identifier: Apache-2.0
#include "tools/query_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <vector>

#include "client/shown_text.h"
#include "platform/product/product.h"
#include "tools/local_time.h"
#include "tools/table.h"

namespace keel {

namespace {

std::string shownDate(const std::optional<Date>& date, const char* otherwise) {
  return date ? shownDateAndTime(*date) : otherwise;
}

std::string jsonOfOptional(const std::optional<std::string>& text, JsonLetters letters) {
  return text ? jsonOfText(*text, letters) : "null";
}

std::string jsonOfOptional(const std::optional<Date>& date) {
  return date ? jsonOf(Value(*date)) : "null";
}

template <class T>
ClientResult<T> ask(Request<T> request, const CommonOptions& common) {
  return std::move(request).within(common.timeout().value_or(kAnswerTimeout)).wait();
}

// Returns true if the job is synthesized; nothing if the bundle is gone or this user, unlike root,
// may not read the job file.
std::optional<bool> isSynthesized(const JobDescription& description) {
  using JobFile = JobDescription::JobFile;
  if (description.jobFile == JobFile::noBundle || description.jobFile == JobFile::denied)
    return std::nullopt;
  return description.jobFile != JobFile::used;
}

}  // namespace

std::string tableOf(const std::vector<DumpEntry>& entries, bool withData, const Console& console) {
  std::vector<std::string> heads{"NAME", "ROLE", "CONNECTION", "LAST CHANGE"};
  if (withData) heads.emplace_back("DATA");
  Table table(heads);
  const auto addRow = [&](std::vector<std::string> cells, std::string data) {
    if (withData) cells.push_back(std::move(data));
    table.add(std::move(cells));
  };
  for (const DumpEntry& entry : entries) {
    const std::string data = entry.data ? jsonOf(*entry.data) : "(none)";
    addRow({shownName(entry.name), "publisher", entry.publisher.value_or("(nobody)"),
            shownDate(entry.published, "(never published)")},
           data);
    for (const DumpEntry::Subscriber& subscriber : entry.subscribers) {
      addRow({"", "subscriber", subscriber.connection.value_or("(gone)"),
              shownDate(subscriber.updated, "(never updated)")},
             "");
    }
  }
  return table.text(console);
}

std::string jsonLineOf(const DumpEntry& entry, bool withData, JsonLetters letters) {
  std::string subscribers;
  for (const DumpEntry::Subscriber& subscriber : entry.subscribers) {
    if (!subscribers.empty()) subscribers += ',';
    subscribers += fmt::format(R"({{"subscriber":{},"updateDate":{}}})",
                               jsonOfOptional(subscriber.connection, letters),
                               jsonOfOptional(subscriber.updated));
  }
  std::string line =
      fmt::format(R"({{"name":{},"publisher":{},"publishDate":{},"subscribers":[{}])",
                  jsonOfText(entry.name, letters), jsonOfOptional(entry.publisher, letters),
                  jsonOfOptional(entry.published), subscribers);
  if (withData)
    line += R"(,"publishedData":)" + (entry.data ? jsonOf(*entry.data, letters) : "null");
  return line + "}\n";
}

int dumpCommand(Console& console, const CommonOptions& common, const std::string& name,
                bool withData) {
  if (!isName(console, name)) return kExitUsage;
  const auto client = connectClient(common, /*reconnect=*/false);
  auto entries = ask(client->dump(name, withData), common);
  if (!entries) return report(console, entries.error());
  std::ranges::sort(*entries, {}, &DumpEntry::name);
  if (!common.json && console.isTerminal()) {
    console.write(entries->empty() ? "nothing is published or followed\n"
                                   : tableOf(*entries, withData, console));
    return kExitOk;
  }
  for (const DumpEntry& entry : *entries) {
    if (!console.write(jsonLineOf(entry, withData, console.letters()))) break;
  }
  return kExitOk;
}

std::string shownJob(const JobState& job) {
  std::string shown;
  const std::string problem = job.problem.empty() ? "" : ": " + shownText(job.problem, 200);
  if (!job.known) return "unknown" + problem;
  switch (job.program) {
    case JobState::Program::none:
      shown = job.listening ? "ready" : "not listening";
      break;
    case JobState::Program::running:
      shown = fmt::format("running as process {}", job.processId);
      break;
    case JobState::Program::starting:
      shown = "about to start";
      break;
    case JobState::Program::failed:
      shown = "failed";
      break;
  }
  return (job.enabled ? shown : "disabled, " + shown) + problem;
}

std::string jsonOfJob(const JobState& job, JsonLetters letters) {
  constexpr std::array<const char*, 4> kPrograms = {"none", "running", "starting", "failed"};
  const auto known = [&](bool yes) { return !job.known ? "null" : yes ? "true" : "false"; };
  return fmt::format(
      R"({{"label":{},"enabled":{},"listening":{},"program":"{}","pid":{},"problem":{}}})",
      job.label.empty() ? "null" : jsonOfText(job.label, letters), known(job.enabled),
      known(job.listening),
      job.known ? kPrograms[static_cast<std::size_t>(job.program)] : "unknown",
      job.known && job.processId > 0 ? std::to_string(job.processId) : "null",
      job.problem.empty() ? "null" : jsonOfText(job.problem, letters));
}

std::string shownSynthesis(const std::string& module, const JobDescription& description) {
  const auto synthesized = isSynthesized(description);
  if (synthesized == false) return "";
  return fmt::format("{} {} a synthesized job: {}", shownText(module, 100),
                     synthesized ? "has" : "may have",
                     shownText(fmt::format("{}", fmt::join(description.reasons, "; ")), 1000));
}

std::string jsonOfSynthesis(const JobDescription& description, JsonLetters letters) {
  const auto synthesized = isSynthesized(description);
  const std::string reasons = fmt::format("{}", fmt::join(description.reasons, "; "));
  return fmt::format(R"("synthesized":{},"reason":{})",
                     !synthesized   ? "null"
                     : *synthesized ? "true"
                                    : "false",
                     reasons.empty() ? "null" : jsonOfText(reasons, letters));
}

int modulesCommand(Console& console, const CommonOptions& common) {
  const auto client = connectClient(common, /*reconnect=*/false);
  const auto modules = ask(client->moduleTable(), common);
  if (!modules) return report(console, modules.error());
  std::vector<std::string> services;
  for (const auto& [name, service] : *modules) services.push_back(service);
  const auto jobs = moduleJobs(services);

  const bool forPeople = !common.json && console.isTerminal();
  if (forPeople && modules->empty()) console.write("no module is enabled\n");
  Table table({"MODULE", "SERVICE", "JOB"});
  std::string lines, remarks;
  for (const auto& [name, service] : *modules) {
    const JobState& job = jobs.at(service);
    const auto description =
        readJobDescription(Bundle(fmt::format("{}{}.bundle", kBundlesDirectory, name)));
    table.add({name, service, shownJob(job)});
    if (const std::string remark = shownSynthesis(name, description); !remark.empty())
      remarks += remark + '\n';
    lines += fmt::format(R"({{"module":{},"service":{},"job":{},{}}})",
                         jsonOfText(name, console.letters()),
                         jsonOfText(service, console.letters()), jsonOfJob(job, console.letters()),
                         jsonOfSynthesis(description, console.letters()));
    lines += '\n';
  }
  if (!forPeople) console.write(lines);
  if (forPeople && !modules->empty())
    console.write(table.text(console) + (remarks.empty() ? "" : "\n" + remarks));
  return kExitOk;
}

int authCheckCommand(Console& console, const CommonOptions& common, const std::string& user,
                     std::optional<std::int32_t> auditSession) {
  if (!isName(console, user)) return kExitUsage;
  const std::int32_t session = auditSession ? *auditSession : ownAuditSession();
  const auto client = connectClient(common, /*reconnect=*/false);
  const auto answer = ask(client->authCheck(user, session), common);
  if (!answer) return report(console, answer.error());
  if (common.json || !console.isTerminal()) {
    console.writeLine(fmt::format(R"({{"user":{},"auditSession":{},"authenticated":{}}})",
                                  jsonOfText(user, console.letters()), session, *answer));
  } else {
    console.writeLine(fmt::format("{}: {} is {}authenticated in audit session {}",
                                  *answer ? "yes" : "no", shownText(user, 100),
                                  *answer ? "" : "not ", session));
  }
  return *answer ? kExitOk : kExitRefused;
}

}  // namespace keel
