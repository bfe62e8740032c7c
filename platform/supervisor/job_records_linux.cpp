// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <array>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>

#include "platform/supervisor/job.h"
#include "platform/supervisor/job_records.h"
#include "platform/supervisor/unit_text.h"

namespace keel {

namespace {

constexpr std::array<std::string_view, 4> kPrograms = {"none", "running", "starting", "failed"};

}  // namespace

void JobRecords::clear() const {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void JobRecords::write(const std::string& machService, const JobState& state) const {
  std::error_code ignored;
  std::filesystem::create_directory(directory_, ignored);
  const std::string path = directory_ + "/" + machService,
                    temporary = directory_ + "/.new." + machService;
  {
    std::ofstream file(temporary, std::ios::trunc);
    file << "label=" << describedText(state.label)
         << "\nprogram=" << kPrograms.at(static_cast<std::size_t>(state.program))
         << "\npid=" << state.processId << "\nproblem=" << describedText(state.problem) << "\n";
  }
  std::filesystem::rename(temporary, path, ignored);
}

void JobRecords::remove(const std::string& machService) const {
  std::error_code ignored;
  std::filesystem::remove(directory_ + "/" + machService, ignored);
}

JobState JobRecords::read(const std::string& machService) const {
  JobState state;
  if (!problemOfMachService(machService).empty()) return state;
  std::ifstream file(directory_ + "/" + machService);
  for (std::string line; std::getline(file, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::string_view key = std::string_view(line).substr(0, equals),
                           value = std::string_view(line).substr(equals + 1);
    if (key == "label") state.label = value;
    if (key == "problem") state.problem = value;
    if (key == "pid") std::from_chars(value.data(), value.data() + value.size(), state.processId);
    for (std::size_t place = 0; key == "program" && place < kPrograms.size(); ++place) {
      if (value == kPrograms[place]) state.program = static_cast<JobState::Program>(place);
    }
  }
  state.known = state.enabled = state.listening = !state.label.empty();
  return state;
}

}  // namespace keel
