// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <exception>
#include <map>
#include <string>

#include "tests/siege/attack.h"
#include "tests/siege/victims.h"

namespace {

constexpr auto kNotifyPath = "/run/keeld/com.vantor.keeld.notify";
constexpr auto kAuthPath = "/run/keeld/com.vantor.keeld.auth";

// Drops root's rights before anything is sent: the attacks are those of an ordinary user.
bool become(uid_t user) {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  return ::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0 &&
         ::setresuid(user, user, user) == 0;
}

void attack(const keel::siege::Attack& attack, keel::siege::AttackPlan plan) {
  if (plan.connectionCount == 0) plan.connectionCount = attack.connectionCount;
  const keel::siege::FloodOutcome outcome = attack.run(plan);
  fmt::print(R"({{"connections": {}, "ended": {}, "sent_bytes": {}, "received_bytes": {}}})"
             "\n",
             outcome.connectionCount, outcome.endedCount, outcome.sentBytes, outcome.receivedBytes);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Attacks a running keeld, or measures how it serves others, as users without rights");
  uid_t user = 65534;
  std::size_t seconds = 5;
  keel::siege::AttackPlan plan{.notifyPath = kNotifyPath, .authPath = kAuthPath};
  keel::siege::VictimsPlan victims{.notifyPath = kNotifyPath, .authPath = kAuthPath};
  app.add_option("--uid", user, "the user who does it");
  app.add_option("--seconds", seconds, "how long an attack takes");
  app.add_option("--connections", plan.connectionCount, "how many the attack uses");
  app.add_option("--names", plan.nameCount, "how many a crowd follows");
  CLI::App* const victimsCommand =
      app.add_subcommand("victims", "publishes, follows, asks and connects, and measures it");
  std::size_t patienceSeconds = 5;
  victimsCommand->add_option("--patience", patienceSeconds,
                             "how many seconds the last answers may take");
  std::map<const CLI::App*, const keel::siege::Attack*> attackByCommand;
  for (const auto attacks : {keel::siege::floodAttacks(), keel::siege::holdingAttacks(),
                             keel::siege::connectionAttacks()}) {
    for (const keel::siege::Attack& each : attacks) {
      attackByCommand[app.add_subcommand(std::string(each.name), std::string(each.description))] =
          &each;
    }
  }
  app.require_subcommand(1);
  CLI11_PARSE(app, argc, argv);
  if (!become(user)) {
    fmt::print(stderr, "keel_siege: cannot become user {}: run it as root\n", user);
    return 2;
  }
  plan.victimName = victims.name;
  plan.ownName = fmt::format("siege.{}.", user);
  victims.arrivalPatience = std::chrono::seconds(patienceSeconds);
  plan.duration = std::chrono::seconds(seconds);
  try {
    const CLI::App* const command = app.get_subcommands().front();
    if (command == victimsCommand) {
      runVictims(victims);
    } else {
      attack(*attackByCommand.at(command), plan);
    }
  } catch (const std::exception& problem) {
    fmt::print(stderr, "keel_siege: {}\n", problem.what());
    return 1;
  }
  return 0;
}
