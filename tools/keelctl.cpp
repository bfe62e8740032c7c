// SPDX-License-Identifier: Apache-2.0
#include "tools/keelctl.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>

#include "tools/auth_commands.h"
#include "tools/command_line_fault.h"
#include "tools/digest_command.h"
#include "tools/publish_command.h"
#include "tools/query_commands.h"
#include "tools/subscribe_command.h"
#include "tools/wrapped_text.h"

namespace keel {

namespace {

constexpr const char* kDescription =
    "Talks to keeld: publish named items, follow them, see what is there.";

constexpr const char* kFooter = R"(
Data is a JSON object, or null. What JSON lacks is written as an object with one member:
  {"$date": SECONDS}
  {"$data": "BASE64"}
  {"$error": {"domain": TEXT, "code": INTEGER, "userInfo": OBJECT}}
  {"$real": "NaN" | "Infinity" | "-Infinity"}
  {"$map": OBJECT} for an object that would look like one of these

On a terminal auth, dump, modules, authcheck and subscribe write for people, elsewhere JSON lines. NO_COLOR switches colours off.
Times for people are local (see TZ), with their offset from UTC: subscribe shows when an event came, dump when data changed.

Exit status:
  0    done, also when whoever reads the output went away
  1    keeld refused (the message has its error code), or answered no; or the file of digest credentials cannot be used
  2    the command line, the JSON or a password makes no sense, or there is no password
  3    keeld is not running, does not let this user in, or closed the connection
  4    no answer in time, no line to publish in time, or less than --count
  5    a command run by subscribe failed
  6    the output cannot be written
  130  ended by SIGINT
  143  ended by SIGTERM)";

// The parsed command line.
struct Parsed {
  CommonOptions common;
  PublishOptions publish;
  SubscribeOptions subscribe;
  std::string name;
  std::string json;
  std::string dumpName = "_all";
  bool withData = false;
  std::optional<std::int32_t> auditSession;
  DigestOptions digest;
  AuthOptions auth;
  std::function<int(Console&)> run;
};

// Adds the options that may precede or follow the command.
void addCommonOptions(CLI::App& app, CommonOptions& common) {
  app.add_flag("--json", common.json, "write JSON also to a terminal");
  app.add_option("--service-directory", common.serviceDirectory,
                 "where keeld's socket is, instead of /run/keeld")
      ->type_name("DIR");
}

// Adds a command with the common options.
CLI::App* addCommand(CLI::App& app, Parsed& parsed, const char* name, const char* description,
                     std::function<int(Console&)> run) {
  CLI::App* command = app.add_subcommand(name, description);
  addCommonOptions(*command, parsed.common);
  command->callback([&parsed, run = std::move(run)] { parsed.run = run; });
  return command;
}

CLI::Validator auditSession() {
  return wholeNumber(std::numeric_limits<std::int32_t>::min(),
                     std::numeric_limits<std::int32_t>::max());
}

void addTimeout(CLI::App* command, Parsed& parsed, const char* description) {
  command->add_option("--timeout", parsed.common.timeoutSeconds, description)
      ->type_name("SECONDS")
      ->check(seconds());
}

constexpr const char* kAnswerTimeoutText = "how long to wait for keeld's answer; without it 10";

void addPublishing(CLI::App& app, Parsed& parsed) {
  CLI::App* publish = addCommand(
      app, parsed, "publish",
      "publish an item and stay: it is published as long as this command runs. With - the item "
      "comes from "
      "standard input, and each further line updates it; the end of the input does not end the "
      "command",
      [&](Console& console) { return publishCommand(console, parsed.common, parsed.publish); });
  publish->add_option("NAME", parsed.publish.name)->required();
  publish->add_option("JSON", parsed.publish.json, "the data, or - for lines from standard input")
      ->required();
  publish->add_option("--flags", parsed.publish.flags, "the flags of the publication")
      ->check(unsignedNumber());
  publish->add_option("--value", parsed.publish.value, "the value of the publication")
      ->check(wholeNumber(std::numeric_limits<std::int64_t>::min()));
  publish->add_option("--count", parsed.publish.count, "end after that many versions")
      ->check(unsignedNumber());
  publish->add_flag("--reconnect", parsed.publish.reconnect,
                    "wait for keeld, and publish anew when the connection was lost");
  addTimeout(publish, parsed, "end after that time");

  CLI::App* update =
      addCommand(app, parsed, "update",
                 "update an item; only its publisher's connection can, so see publish NAME -",
                 [&](Console& console) {
                   return updateCommand(console, parsed.common, parsed.name, parsed.json);
                 });
  update->add_option("NAME", parsed.name)->required();
  update->add_option("JSON", parsed.json, "the data")->required();
  addTimeout(update, parsed, kAnswerTimeoutText);

  CLI::App* remove = addCommand(
      app, parsed, "remove", "withdraw an item; only its publisher's connection can",
      [&](Console& console) { return removeCommand(console, parsed.common, parsed.name); });
  remove->add_option("NAME", parsed.name)->required();
  addTimeout(remove, parsed, kAnswerTimeoutText);
}

void addSubscribing(CLI::App& app, Parsed& parsed) {
  CLI::App* subscribe = addCommand(
      app, parsed, "subscribe",
      "follow names, published or not, and write each event. With -- COMMAND ARGUMENTS... run that "
      "for each event instead, one "
      "at a "
      "time, with the data as JSON on its standard input and KEELCTL_NAME and KEELCTL_EVENT (data "
      "or error) in its environment",
      [&](Console& console) { return subscribeCommand(console, parsed.common, parsed.subscribe); });
  CLI::Option* names = subscribe->add_option("NAME,--name", parsed.subscribe.names,
                                             "which; one that begins with - as --name=-x");
  names->required();
  subscribe->add_option("--count", parsed.subscribe.count, "end after that many events")
      ->check(unsignedNumber());
  subscribe->add_flag("--reconnect", parsed.subscribe.reconnect,
                      "wait for keeld, and follow anew when the connection was lost");
  addTimeout(subscribe, parsed, "end after that time");
}

void addQueries(CLI::App& app, Parsed& parsed) {
  CLI::App* dump = addCommand(
      app, parsed, "dump", "show items, their publishers and subscribers", [&](Console& console) {
        return dumpCommand(console, parsed.common, parsed.dumpName, parsed.withData);
      });
  dump->add_option("NAME", parsed.dumpName, "which one; without it, or with _all, every one");
  dump->add_flag("--data", parsed.withData, "with their data");
  addTimeout(dump, parsed, kAnswerTimeoutText);

  CLI::App* modules = addCommand(
      app, parsed, "modules", "list the enabled modules, their services, and how their jobs stand",
      [&](Console& console) { return modulesCommand(console, parsed.common); });
  addTimeout(modules, parsed, kAnswerTimeoutText);

  CLI::App* authCheck = addCommand(
      app, parsed, "authcheck",
      "ask whether a user was proved an administrator in an audit session", [&](Console& console) {
        return authCheckCommand(console, parsed.common, parsed.name, parsed.auditSession);
      });
  authCheck->add_option("USER", parsed.name)->required();
  authCheck
      ->add_option("ASID", parsed.auditSession,
                   "the audit session; without it, that of this process")
      ->check(auditSession());
  addTimeout(authCheck, parsed, kAnswerTimeoutText);
}

// Adds a command of keelctl auth.
template <class Run>
CLI::App* addAuthCommand(CLI::App& auth, Parsed& parsed, const char* name, const char* description,
                         Run run) {
  CLI::App* command = addCommand(auth, parsed, name, description, [&parsed, run](Console& console) {
    if constexpr (std::is_invocable_v<Run, Console&, const CommonOptions&, const AuthOptions&>) {
      return run(console, parsed.common, parsed.auth);
    } else {
      return run(console, parsed.common);
    }
  });
  addTimeout(command, parsed, "how long to wait for keeld's answer; without it 30");
  return command;
}

void addAuth(CLI::App& app, Parsed& parsed) {
  CLI::App* auth = app.add_subcommand(
      "auth", "prove that a user is an administrator, for the audit session of this process");
  auth->require_subcommand(1);
  const auto add = [&](const char* name, const char* description, auto run) {
    return addAuthCommand(*auth, parsed, name, description, run);
  };
  const auto addWithPassword = [&](const char* name, const char* description, auto run) {
    CLI::App* command = add(name, description, run);
    command->add_option("USER", parsed.auth.user)->required();
    command
        ->add_option("--password-fd", parsed.auth.passwordDescriptor,
                     "read it, one line, from that descriptor instead")
        ->type_name("N")
        ->check(wholeNumber(0, std::numeric_limits<int>::max()));
  };
  add("check", "ask whether the auth service is alive", authAliveCommand);
  addWithPassword("password", "with the password of an account, which is asked for on the terminal",
                  authPasswordCommand);
  addWithPassword("basic", "the same by a basic challenge", authBasicCommand);
  addWithPassword("digest", "by a digest challenge, with a password of keelctl digest set",
                  authDigestCommand);
  CLI::App* reference =
      add("reference", "with the right of this process to manage daemons, which polkit grants",
          authReferenceCommand);
  reference
      ->add_option("USER", parsed.auth.user,
                   "an administrator; need not be the user of this process")
      ->required();
  reference->add_flag("--interactive", parsed.auth.interactive,
                      "have polkit ask for a proof first, where it wants one");
  add("realm", "show the realm of the challenges", authRealmCommand);
  add("session", "ask whether anybody was proved an administrator in an audit session",
      authSessionCommand)
      ->add_option("ASID", parsed.auth.auditSession, "which; without it, that of this process")
      ->check(auditSession());
}

// Adds a command of keelctl digest, for one user unless it lists them.
CLI::App* addDigestCommand(CLI::App& digest, Parsed& parsed, const char* name,
                           const char* description, std::function<int(Console&)> run) {
  CLI::App* command = addCommand(digest, parsed, name, description, std::move(run));
  command
      ->add_option("--file", parsed.digest.file,
                   "the file of the credentials, instead of /etc/keeld/digest")
      ->type_name("FILE");
  return command;
}

void addDigest(CLI::App& app, Parsed& parsed) {
  CLI::App* digest = app.add_subcommand(
      "digest", "say who may answer digest challenges, with which passwords; as root");
  digest->require_subcommand(1);
  const auto addUser = [&](CLI::App* command) {
    command->add_option("USER", parsed.digest.user, "the name of an account")->required();
    command
        ->add_option("--realm", parsed.digest.realm,
                     "another realm than that of keeld's challenges")
        ->type_name("REALM");
  };
  CLI::App* set =
      addDigestCommand(*digest, parsed, "set",
                       "give a user a digest password, which need not be that of the account. It "
                       "is asked for on the "
                       "terminal",
                       [&](Console& console) { return digestSetCommand(console, parsed.digest); });
  addUser(set);
  set->add_option("--password-fd", parsed.digest.passwordDescriptor,
                  "read it, one line, from that descriptor instead")
      ->type_name("N")
      ->check(wholeNumber(0, std::numeric_limits<int>::max()));
  addDigestCommand(
      *digest, parsed, "list", "show the users who have one, with realm and algorithms",
      [&](Console& console) { return digestListCommand(console, parsed.common, parsed.digest); });
  addUser(addDigestCommand(
      *digest, parsed, "remove", "take a user's digest password away",
      [&](Console& console) { return digestRemoveCommand(console, parsed.digest); }));
}

// Splits off the arguments behind "--", the command that subscribe runs.
std::vector<std::string> takeEventCommand(std::vector<std::string>& arguments) {
  const auto separator = std::ranges::find(arguments, "--");
  if (separator == arguments.end()) return {};
  std::vector<std::string> command(separator + 1, arguments.end());
  arguments.erase(separator, arguments.end());
  return command;
}

// The parser splits "[a,b]" into two words where several are allowed. A prefix letter on words that
// begin with the bracket, or with that letter, prevents it.
constexpr char kKept = '\x01';

void keepWhole(std::vector<std::string>& arguments) {
  for (std::string& argument : arguments) {
    if (argument.starts_with('[') || argument.starts_with(kKept)) argument.insert(0, 1, kKept);
  }
}

void takeKept(std::vector<std::string>& names) {
  for (std::string& name : names) {
    if (name.starts_with(kKept)) name.erase(0, 1);
  }
}

// Returns the final exit status: a failed write overrides `code`, since the output is incomplete.
int exitCodeWith(Console& console, int code) {
  if (console.outputError() == 0) return code;
  console.note(std::string("the output cannot be written: ") +
               std::strerror(console.outputError()));
  return kExitOutputFailed;
}

// Common options may precede the command; their values are not commands.
bool isSubscribe(const std::vector<std::string>& arguments) {
  auto argument = arguments.begin();
  while (argument != arguments.end() && argument->starts_with('-')) {
    argument += *argument == "--service-directory" && argument + 1 != arguments.end() ? 2 : 1;
  }
  return argument != arguments.end() && *argument == "subscribe";
}

}  // namespace

int runKeelctl(std::vector<std::string> typed, Console& console) {
  Parsed parsed;
  CLI::App app(kDescription, "keelctl");
  app.footer(kFooter);
  app.require_subcommand(1);
  app.set_version_flag("--version", "keelctl " KEEL_VERSION, "show the version and exit");
  addCommonOptions(app, parsed.common);
  addPublishing(app, parsed);
  addSubscribing(app, parsed);
  addQueries(app, parsed);
  addAuth(app, parsed);
  addDigest(app, parsed);
  if (isSubscribe(typed)) {
    if (typed.back() == "--")
      return reportUsage(console, "there is no command behind --", "keelctl subscribe");
    parsed.subscribe.command = takeEventCommand(typed);
    keepWhole(typed);
  }
  try {
    app.parse(std::vector<std::string>(typed.rbegin(), typed.rend()));
  } catch (const CLI::CallForHelp&) {
    console.write(wrappedText(app.help(), console.columns()));
    return exitCodeWith(console, kExitOk);
  } catch (const CLI::CallForVersion& version) {
    console.writeLine(version.what());
    return exitCodeWith(console, kExitOk);
  } catch (const CLI::ParseError& fault) {
    const auto [message, command] = explained(app, fault, typed);
    return reportUsage(console, message, command);
  }
  takeKept(parsed.subscribe.names);
  return exitCodeWith(console, parsed.run(console));
}

}  // namespace keel
