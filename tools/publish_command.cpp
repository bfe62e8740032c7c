// SPDX-License-Identifier: Apache-2.0
#include "tools/publish_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <variant>

#include "client/shown_text.h"
#include "tools/input_lines.h"
#include "tools/mailbox.h"
#include "tools/waiting.h"

namespace keel {

namespace {

constexpr std::size_t kShownErrorColumns = 400;

// A run of `keelctl publish`.
class Publisher {
 public:
  Publisher(Console& console, const CommonOptions& common, const PublishOptions& options)
      : console_(console),
        common_(common),
        options_(options),
        lines_(console.input()),
        waiting_(mailbox_.descriptor(), /*output=*/-1, common.timeout()),
        client_(connectClient(common, options.reconnect)) {
    client_->setStateHandler([this](const ConnectionState& state) { mailbox_.push(state); });
    client_->setPublicationHandler([this](const PublicationState& state) { mailbox_.push(state); });
  }
  ~Publisher() { mailbox_.close(); }

  int run() {
    readsInput_ = options_.json == "-";
    if (!readsInput_) send(options_.json, "the data");
    while (!exit_) wait();
    return *exit_;
  }

 private:
  using Result = ClientResult<void>;
  using Message = std::variant<Result, ConnectionState, PublicationState>;

  void wait() {
    if (timeIsUp_ && !asking_) return endInTime();
    switch (waiting_.next(readsInput_ && !asking_ && !lines_.atEnd() ? console_.input() : -1)) {
      case Waiting::Reason::message:
        if (auto message = mailbox_.take())
          std::visit([this](const auto& it) { take(it); }, *message);
        break;
      case Waiting::Reason::input:
        readInput();
        break;
      case Waiting::Reason::timeIsUp:
        // A request in flight fails, too, and reports the reason.
        timeIsUp_ = true;
        waiting_.dropEnd();
        break;
      case Waiting::Reason::outputGone:  // which is not watched: nothing is written there
        break;
    }
  }

  void endInTime() {
    if (versions_ == 0) {
      console_.note("no line of standard input came in time: nothing was published");
      exit_ = kExitTimedOut;
    } else if (versions_ < options_.count) {
      console_.note(
          fmt::format("{} of {} versions were published in time", versions_, options_.count));
      exit_ = kExitTimedOut;
    } else if (loss_) {
      console_.note(fmt::format("keeld did not come back in time: {} is not published",
                                shownName(options_.name)));
      exit_ = exitCodeOf(*loss_);
    } else {
      exit_ = kExitOk;
    }
  }

  void readInput() {
    std::string fault;
    if (lines_.read(fault)) return sendNextLine();
    exit_ = reportUsage(console_, fault);
  }

  void sendNextLine() {
    if (const auto line = lines_.next()) {
      send(*line, fmt::format("line {} of standard input", lines_.lineNumber()));
    } else if (lines_.atEnd() && versions_ == 0) {
      exit_ = reportUsage(console_, "standard input holds nothing to publish");
    }
  }

  // Publishes or updates. One request at a time: input is not read while an answer is pending.
  void send(const std::string& json, const std::string& where) {
    auto data = dataOfJson(console_, json, where);
    if (!data) {
      exit_ = kExitUsage;
      return;
    }
    const std::string& name = options_.name;
    auto request = versions_ == 0
                       ? client_->publish(name, std::move(*data), options_.flags, options_.value)
                       : client_->update(name, std::move(*data));
    const auto timeout = answerTimeout(options_.reconnect);
    const auto left = readsInput_ ? waiting_.left() : common_.timeout();
    const auto begun = std::move(request)
                           .within(std::min(left.value_or(timeout), timeout))
                           .then([this](Result result) { mailbox_.push(std::move(result)); });
    if (begun) {
      asking_ = true;
    } else {
      exit_ = report(console_, begun.error());
    }
  }

  void take(const Result& result) {
    asking_ = false;
    if (!result) {
      exit_ = report(console_, result.error());
      return;
    }
    console_.status(
        fmt::format("{} {}", versions_ == 0 ? "published" : "updated", shownName(options_.name)));
    if (++versions_ == options_.count) {
      exit_ = kExitOk;
    } else if (readsInput_ && !timeIsUp_) {
      sendNextLine();
    }
  }

  void take(const ConnectionState& state) {
    if (state.kind == ConnectionState::Kind::connected && std::exchange(loss_, std::nullopt)) {
      console_.note("connected");
    } else if (state.kind == ConnectionState::Kind::disconnected) {
      const bool again = std::exchange(loss_, state.error).has_value();
      if (!options_.reconnect || !again) console_.note(state.reason);
      if (!options_.reconnect) exit_ = exitCodeOf(state.error);
    }
  }

  void take(const PublicationState& state) {
    console_.note(fmt::format("{} cannot be published anew: {}", shownName(options_.name),
                              shownText(state.error.description(), kShownErrorColumns)));
    exit_ = kExitRefused;
  }

  Console& console_;
  const CommonOptions& common_;
  const PublishOptions& options_;
  Mailbox<Message> mailbox_;
  InputLines lines_;
  Waiting waiting_;
  bool readsInput_ = false;
  bool asking_ = false;
  bool timeIsUp_ = false;
  std::optional<ClientError::Kind> loss_;  // the reason of the current disconnection
  std::size_t versions_ = 0;
  std::optional<int> exit_;
  std::unique_ptr<KLNClient> client_;
};

}  // namespace

int publishCommand(Console& console, const CommonOptions& common, const PublishOptions& options) {
  if (!isName(console, options.name)) return kExitUsage;
  // Reports a parse error before a connection error.
  if (options.json != "-" && !dataOfJson(console, options.json, "the data")) return kExitUsage;
  return Publisher(console, common, options).run();
}

namespace {

// keeld accepts updates and removals on the publisher's connection only.
ExitCode reportNotOurs(Console& console, const ClientError& error, const char* advice) {
  const ExitCode code = report(console, error);
  if (error.kind() == ClientError::Kind::notFound) {
    console.note(std::string("an item belongs to the connection that published it, and this "
                             "command has one of its own; ") +
                 advice);
  }
  return code;
}

}  // namespace

int updateCommand(Console& console, const CommonOptions& common, const std::string& name,
                  const std::string& json) {
  if (!isName(console, name)) return kExitUsage;
  auto data = dataOfJson(console, json, "the data");
  if (!data) return kExitUsage;
  const auto client = connectClient(common, /*reconnect=*/false);
  const auto result = client->update(name, std::move(*data))
                          .within(common.timeout().value_or(kAnswerTimeout))
                          .wait();
  if (!result) {
    return reportNotOurs(console, result.error(),
                         "to update, keep `keelctl publish NAME -` running and give it one JSON "
                         "line for each version");
  }
  console.status("updated " + shownName(name));
  return kExitOk;
}

int removeCommand(Console& console, const CommonOptions& common, const std::string& name) {
  if (!isName(console, name)) return kExitUsage;
  const auto client = connectClient(common, /*reconnect=*/false);
  const auto result = client->remove(name).within(common.timeout().value_or(kAnswerTimeout)).wait();
  if (!result) return reportNotOurs(console, result.error(), "to withdraw it, end its publisher");
  console.status("removed " + shownName(name));
  return kExitOk;
}

}  // namespace keel
