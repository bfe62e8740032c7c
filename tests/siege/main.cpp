// SPDX-License-Identifier: Apache-2.0
#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "tests/siege/crowd.h"

namespace {

// Drops root's rights before anything is sent: the attacks are those of an ordinary user.
bool become(uid_t user) {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  return ::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0 &&
         ::setresuid(user, user, user) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Attacks a running keeld, as a user without rights");
  uid_t user = 65534;
  keel::siege::CrowdPlan crowd{.path = "/run/keeld/com.vantor.keeld.notify"};
  std::size_t seconds = 5;
  app.add_option("--uid", user, "the attacker");
  app.add_option("--seconds", seconds);
  CLI::App* const crowdCommand =
      app.add_subcommand("crowd", "more updates for a crowd of followers than it can read");
  crowdCommand->add_option("--names", crowd.nameCount);
  crowdCommand->add_option("--followers", crowd.followerCount);
  app.require_subcommand(1);
  CLI11_PARSE(app, argc, argv);
  if (!become(user)) {
    std::cerr << "keel_siege: cannot become user " << user << ": run it as root\n";
    return 2;
  }
  try {
    crowd.duration = std::chrono::seconds(seconds);
    const auto outcome = keel::siege::runCrowd(crowd);
    std::cout << outcome.endedCount << " connections ended, " << outcome.replyCount << " replies, "
              << outcome.deliveryCount << " deliveries\n";
  } catch (const std::exception& problem) {
    std::cerr << "keel_siege: " << problem.what() << '\n';
    return 1;
  }
  return 0;
}
