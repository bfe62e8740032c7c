// SPDX-License-Identifier: Apache-2.0
#include "tools/keelctl.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <sstream>

#include "client/shown_text.h"
#include "runtime/foundation/file_descriptor.h"
#include "tools/exit_code.h"

namespace keel {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

// Runs keelctl in this process with files as its standard streams.
class Keelctl : public testing::Test {
 protected:
  ~Keelctl() override {
    for (const int file : {input, output, errors}) ::close(file);
  }
  int run(std::vector<std::string> arguments) {
    Console console(input, output, errors);
    return runKeelctl(std::move(arguments), console);
  }
  // Uses a service directory without services.
  int runAlone(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin() + 1, {"--service-directory", "/nonexistent/keeld"});
    return run(std::move(arguments));
  }
  void give(std::string_view text) {
    ASSERT_EQ(::write(input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::lseek(input, 0, SEEK_SET);
  }
  static std::string contentOf(int file) {
    std::string content(static_cast<std::size_t>(::lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(file, content.data(), content.size(), 0),
              static_cast<ssize_t>(content.size()));
    return content;
  }
  std::string said() { return contentOf(errors); }

  int input = ::memfd_create("input", MFD_CLOEXEC);
  int output = ::memfd_create("output", MFD_CLOEXEC);
  int errors = ::memfd_create("errors", MFD_CLOEXEC);
};

TEST_F(Keelctl, HelpNamesEveryCommandAndExitStatus) {
  EXPECT_EQ(run({"--help"}), kExitOk);
  const std::string help = contentOf(output);
  for (const char* command : {"publish", "update", "remove", "subscribe", "dump", "modules",
                              "authcheck", "digest", "NO_COLOR", "$date", "130"}) {
    EXPECT_THAT(help, HasSubstr(command));
  }
  EXPECT_EQ(said(), "");
}

TEST_F(Keelctl, HelpOfACommandListsItsArguments) {
  EXPECT_EQ(run({"subscribe", "--help"}), kExitOk);
  EXPECT_THAT(contentOf(output), AllOf(HasSubstr("--count"), HasSubstr("KEELCTL_NAME")));
}

TEST_F(Keelctl, HelpFitsTheTerminal) {
  const std::vector<std::vector<std::string>> commands = {{},
                                                          {"publish"},
                                                          {"update"},
                                                          {"remove"},
                                                          {"subscribe"},
                                                          {"dump"},
                                                          {"modules"},
                                                          {"authcheck"},
                                                          {"auth"},
                                                          {"digest"},
                                                          {"auth", "check"},
                                                          {"auth", "password"},
                                                          {"auth", "basic"},
                                                          {"auth", "digest"},
                                                          {"auth", "reference"},
                                                          {"auth", "realm"},
                                                          {"auth", "session"},
                                                          {"digest", "set"},
                                                          {"digest", "list"},
                                                          {"digest", "remove"}};
  for (std::vector<std::string> line : commands) {
    line.emplace_back("--help");
    EXPECT_EQ(run(line), kExitOk);
  }
  std::istringstream help(contentOf(output));
  int count = 0;
  for (std::string line; std::getline(help, line); ++count) EXPECT_LE(columnsOf(line), 80U) << line;
  EXPECT_GT(count, 400);
}

TEST_F(Keelctl, VersionIsThatOfTheProject) {
  EXPECT_EQ(run({"--version"}), kExitOk);
  EXPECT_THAT(contentOf(output), MatchesRegex("keelctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(Keelctl, NamesTheWrongWord) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> lines = {
      {{"subscibe", "a"}, "unknown command subscibe (did you mean subscribe?); see keelctl --help"},
      {{"frobnicate"}, "unknown command frobnicate; see keelctl --help"},
      {{"auth", "pasword"},
       "unknown command pasword (did you mean password?); see keelctl auth --help"},
      {{"digest", "lst"}, "unknown command lst (did you mean list?); see keelctl digest --help"},
      {{"publish", "a", "{}", "--falgs", "3"},
       "unknown option --falgs (did you mean --flags?); see keelctl publish --help"},
      {{"publish", "--falgs=3"},
       "unknown option --falgs (did you mean --flags?); see keelctl publish --help"},
      {{"--jsn", "dump"}, "unknown option --jsn (did you mean --json?); see keelctl dump --help"},
      {{"--timeout", "3", "dump"},
       "--timeout belongs behind keelctl dump; see keelctl dump --help"},
      {{"publish", "a", "{}", "more", "--count", "2"},
       "unexpected word more; see keelctl publish --help"},
      {{"dump", "a", "\x1b[31m"}, "unexpected word \\u{1b}[31m; see keelctl dump --help"},
      {{"dump", "--timeout", "abc"},
       "--timeout: a number of seconds from 0 on is wanted, not abc; see keelctl dump --help"},
      {{"dump", "--timeout", "nan"},
       "--timeout: a number of seconds from 0 on is wanted, not nan; see keelctl dump --help"},
      {{"dump", "--timeout"}, "--timeout needs a value; see keelctl dump --help"},
      {{"dump", "--data=x"}, "--data takes no value; see keelctl dump --help"},
      {{"publish", "a", "{}", "--flags", "18446744073709551616"},
       "--flags: a whole number from 0 on is wanted, not 18446744073709551616; see keelctl publish "
       "--help"},
      {{"authcheck", "ann", "2147483648"},
       "ASID: a whole number from -2147483648 to 2147483647 is wanted, not 2147483648; see keelctl "
       "authcheck --help"},
      {{"publish", "a"}, "JSON is missing; see keelctl publish --help"},
      {{"subscribe"}, "NAME is missing; see keelctl subscribe --help"},
      {{"subscribe", "a", "--"}, "there is no command behind --; see keelctl subscribe --help"},
      {{"digest"}, "a command is missing, one of set, list, remove; see keelctl digest --help"}};
  for (const auto& [line, message] : lines) {
    ASSERT_EQ(::ftruncate(errors, 0), 0);
    ::lseek(errors, 0, SEEK_SET);
    EXPECT_EQ(run(line), kExitUsage);
    EXPECT_EQ(said(), "keelctl: " + message + "\n");
  }
}

TEST_F(Keelctl, AcceptsNumbersInCNotation) {
  EXPECT_EQ(runAlone({"publish", "a", "{}", "--flags", "0xffffffffffffffff", "--value", "-0x10"}),
            kExitUnreachable);
  EXPECT_EQ(runAlone({"dump", "--timeout", "1e1"}), kExitUnreachable);
}

TEST_F(Keelctl, InvalidCommandLinesAreUsageErrors) {
  const std::vector<std::vector<std::string>> lines = {
      {},
      {"frobnicate"},
      {"publish"},
      {"publish", "a"},
      {"publish", "a", "{}", "more"},
      {"publish", "a", "{}", "--count", "few"},
      {"publish", "a", "{}", "--count", "-1"},
      {"publish", "a", "{}", "--flags", "-1"},
      {"subscribe", "a", "--count", "-1"},
      {"publish", "a", "{}", "--timeout", "-1"},
      {"subscribe"},
      {"subscribe", "a", "--"},
      {"dump", "a", "b"},
      {"authcheck"},
      {"auth"},
      {"auth", "frobnicate"},
      {"auth", "password"},
      {"auth", "reference"},
      {"auth", "digest", "ann", "secret"},
      {"auth", "session", "99999999999"},
      {"auth", "password", "ann", "--password-fd", "-1"},
      {"authcheck", "ann", "99999999999"},
      {"modules", "--bogus"}};
  for (const auto& line : lines) EXPECT_EQ(run(line), kExitUsage) << testing::PrintToString(line);
  EXPECT_THAT(said(), HasSubstr("see keelctl --help"));
  EXPECT_EQ(contentOf(output), "");
}

TEST_F(Keelctl, InvalidDataIsAUsageErrorBeforeConnecting) {
  EXPECT_EQ(runAlone({"publish", "a", "{"}), kExitUsage);
  EXPECT_EQ(runAlone({"publish", "a", "[1]"}), kExitUsage);
  EXPECT_EQ(runAlone({"update", "a", "3"}), kExitUsage);
  EXPECT_THAT(said(), AllOf(HasSubstr("not JSON at byte"), HasSubstr("a JSON object, or null")));
}

TEST_F(Keelctl, NamesThatAreNotUtf8AreUsageErrors) {
  EXPECT_EQ(runAlone({"publish", "\xff", "{}"}), kExitUsage);
  EXPECT_EQ(runAlone({"subscribe", "a", "\xff"}), kExitUsage);
  EXPECT_EQ(runAlone({"dump", "\xff"}), kExitUsage);
}

TEST_F(Keelctl, EveryCommandReportsThatKeeldIsNotRunning) {
  const std::vector<std::vector<std::string>> lines = {{"publish", "a", "{}"},
                                                       {"update", "a", "{}"},
                                                       {"remove", "a"},
                                                       {"subscribe", "a"},
                                                       {"subscribe", "a", "--", "true"},
                                                       {"dump"},
                                                       {"dump", "a", "--data"},
                                                       {"modules"},
                                                       {"authcheck", "ann", "7"},
                                                       {"subscribe", "[a,b]", "[", ""},
                                                       {"subscribe", "--name=-a"},
                                                       {"--json", "subscribe", "a", "--", "true"},
                                                       {"--json", "dump"}};
  for (const auto& line : lines) {
    ASSERT_EQ(::ftruncate(errors, 0), 0);
    ::lseek(errors, 0, SEEK_SET);
    EXPECT_EQ(runAlone(line), kExitUnreachable) << testing::PrintToString(line);
    EXPECT_THAT(said(), HasSubstr("keeld is not running: no socket at "
                                  "/nonexistent/keeld/com.vantor.keeld.notify; start it with"));
    EXPECT_EQ(std::ranges::count(said(), '\n'), 1) << said();
  }
  EXPECT_EQ(contentOf(output), "");
}

TEST_F(Keelctl, ADumpWithoutANameIsADumpOfAllItems) {
  EXPECT_EQ(runAlone({"dump"}), kExitUnreachable);
  EXPECT_THAT(said(), StartsWith("keelctl: could not dump all items: keeld is not running"));
}

TEST_F(Keelctl, PublishFromAnEmptyInputIsAUsageError) {
  give("\n\n");
  EXPECT_EQ(runAlone({"publish", "a", "-", "--reconnect"}), kExitUsage);
  EXPECT_THAT(said(), HasSubstr("nothing to publish"));
}

TEST_F(Keelctl, PublishNamesTheInvalidLine) {
  give("\n{\"a\"}\n");
  EXPECT_EQ(runAlone({"publish", "a", "-", "--reconnect"}), kExitUsage);
  EXPECT_THAT(said(), HasSubstr("line 2 of standard input: not JSON"));
}

TEST_F(Keelctl, WaitingForKeeldEndsWithTheTimeout) {
  EXPECT_EQ(runAlone({"publish", "a", "{}", "--reconnect", "--timeout", "0"}), kExitUnreachable);
  EXPECT_THAT(said(), HasSubstr("could not publish \"a\" within 0 s: keeld is not running"));
  EXPECT_EQ(runAlone({"subscribe", "b", "--reconnect", "--timeout", "0"}), kExitUnreachable);
  EXPECT_THAT(said(), HasSubstr("could not subscribe to \"b\" within 0 s: keeld is not running"));
  EXPECT_EQ(runAlone({"subscribe", "c", "--reconnect", "--timeout", "0", "--count", "2"}),
            kExitUnreachable);
  EXPECT_THAT(said(), HasSubstr("could not subscribe to \"c\" within 0 s: keeld is not running"));
}

TEST_F(Keelctl, AnOutputThatCannotBeWrittenIsAFailure) {
  const FileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  Console console(input, full.get(), errors);
  EXPECT_EQ(runKeelctl({"--help"}, console), kExitOutputFailed);
  EXPECT_EQ(said(), "keelctl: the output cannot be written: No space left on device\n");
}

TEST_F(Keelctl, TooManyNamesAreReported) {
  std::vector<std::string> line{"subscribe", "--reconnect"};
  for (int i = 0; i < 5000; ++i) line.push_back(std::to_string(i));
  EXPECT_EQ(runAlone(line), kExitRefused);
  EXPECT_THAT(said(), HasSubstr("too many requests wait"));
}

}  // namespace
}  // namespace keel
