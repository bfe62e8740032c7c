// SPDX-License-Identifier: Apache-2.0
#include "tools/subscribe_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <variant>

#include "client/shown_text.h"
#include "tools/event_command.h"
#include "tools/local_time.h"
#include "tools/mailbox.h"
#include "tools/waiting.h"

namespace keel {

namespace {

constexpr std::size_t kShownDataColumns = 2000;

// A run of `keelctl subscribe`.
class Subscriber {
 public:
  Subscriber(Console& console, const CommonOptions& common, const SubscribeOptions& options)
      : console_(console),
        common_(common),
        options_(options),
        command_(options.command),
        waiting_(mailbox_.descriptor(), console.output(), common.timeout()),
        client_(connectClient(common, options.reconnect)) {}
  // The client's destructor waits for a callback, which may be blocked on a full mailbox.
  ~Subscriber() { mailbox_.close(); }

  int run() {
    client_->setStateHandler([this](const ConnectionState& state) { mailbox_.push(state); });
    for (const std::string& name : options_.names) subscribe(name);
    while (!exit_) wait();
    return *exit_;
  }

 private:
  struct Subscribed {
    const std::string& name;
    ClientResult<Subscription> result;
  };
  using Message = std::variant<Event, Subscribed, ConnectionState>;

  void subscribe(const std::string& name) {
    if (exit_) return;
    const auto timeout = answerTimeout(options_.reconnect);
    const auto begun = client_
                           ->subscribe(name,
                                       [this](const Event& event) {
                                         mailbox_.push(event, event.item.encoded().size());
                                       })
                           .within(std::min(common_.timeout().value_or(timeout), timeout))
                           .then([this, &name](ClientResult<Subscription> result) {
                             mailbox_.push(Subscribed{name, std::move(result)});
                           });
    if (begun) {
      ++pendingCount_;
    } else {
      exit_ = report(console_, begun.error());
    }
  }

  void wait() {
    if (timeIsUp_ && pendingCount_ == 0) return endInTime();
    switch (waiting_.next(-1)) {
      case Waiting::Reason::message:
        if (auto message = mailbox_.take()) std::visit([this](auto& it) { take(it); }, *message);
        break;
      case Waiting::Reason::timeIsUp:
        // Requests in flight fail, too, and report the reason.
        timeIsUp_ = true;
        waiting_.dropEnd();
        break;
      default:
        exit_ = outcome_;
    }
  }

  void endInTime() {
    if (options_.count > 0) {
      console_.note(fmt::format("{} of {} events came in time", events_, options_.count));
      exit_ = kExitTimedOut;
    } else if (loss_) {
      console_.note("keeld did not come back in time");
      exit_ = exitCodeOf(*loss_);
    } else {
      exit_ = outcome_;
    }
  }

  void take(Subscribed& it) {
    --pendingCount_;
    if (!it.result) {
      // The state change that explains it follows; the reason is printed once.
      exit_ = report(console_, it.result.error());
      return;
    }
    subscriptions_.push_back(std::move(*it.result));
    console_.status("subscribed to " + shownName(it.name));
  }

  void take(const Event& event) {
    if (!options_.command.empty()) {
      runCommand(event);
    } else if (!console_.writeLine(lineOf(event))) {
      exit_ = outcome_;
    }
    if (++events_ == options_.count) exit_ = outcome_;
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

  std::string lineOf(const Event& event) const {
    const std::string data =
        jsonOf(event.error ? Value(event.error) : event.data(), console_.letters());
    if (common_.json || !console_.isTerminal()) {
      return fmt::format(R"({{"name":{},"event":"{}","{}":{}}})",
                         jsonOfText(event.name.view(), console_.letters()),
                         event.error ? "error" : "data", event.error ? "error" : "data", data);
    }
    const std::string shown =
        event.error ? "error: " + shownText(event.error.description(), kShownDataColumns)
                    : shownText(jsonOf(event.data()), kShownDataColumns);
    return fmt::format("{}  {}  {}", console_.dim(shownTimeOfDay(Date::now())),
                       console_.bold(shownName(event.name.view())), shown);
  }

  void runCommand(const Event& event) {
    const std::string input = jsonOf(event.error ? Value(event.error) : event.data()) + "\n";
    const auto status =
        command_.run(std::string(event.name.view()), event.error ? "error" : "data", input);
    if (status && *status == 0) return;
    outcome_ = kExitCommandFailed;
    console_.note(status
                      ? fmt::format("{} exited with status {}", options_.command[0], *status)
                      : fmt::format("{} cannot be run: {}", options_.command[0], status.error()));
  }

  Console& console_;
  const CommonOptions& common_;
  const SubscribeOptions& options_;
  const EventCommand command_;
  Mailbox<Message> mailbox_;
  Waiting waiting_;
  std::vector<Subscription> subscriptions_;
  std::size_t pendingCount_ = 0;  // unanswered subscriptions
  bool timeIsUp_ = false;
  std::optional<ClientError::Kind> loss_;  // the reason of the current disconnection
  std::size_t events_ = 0;
  ExitCode outcome_ = kExitOk;
  std::optional<int> exit_;
  std::unique_ptr<KLNClient> client_;
};

}  // namespace

int subscribeCommand(Console& console, const CommonOptions& common,
                     const SubscribeOptions& options) {
  for (const std::string& name : options.names) {
    if (!isName(console, name)) return kExitUsage;
  }
  return Subscriber(console, common, options).run();
}

}  // namespace keel
