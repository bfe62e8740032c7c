// SPDX-License-Identifier: Apache-2.0
// Several clients, each on a connection with a handler as the listener creates it, send requests
// over the wire and die at any moment, with or without work in the queue. After each step every
// client has received exactly what the model predicts, in that order. Dumps of all items are
// written whole or in slices of one item; the latter are answered later than the model predicts,
// but with the same content. Runs at the default log level, where pipelined updates form batches,
// and at the debug level, where they do not.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <memory>
#include <set>

#include "notify/dump_coordinator.h"
#include "notify/notification_service.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/foundation/value.h"
#include "tests/model/handler_model.h"
#include "tests/support/log_recorder.h"
#include "tests/support/notify_client.h"

namespace keel::model {

enum class Request : std::uint8_t {
  publish,
  update,
  pipelineUpdates,
  remove,
  subscribe,
  unsubscribe,
  dump,
  dumpAll,
  interrupt,
  die,
  runTurn
};

static std::string textOf(Request kind) {
  constexpr std::array<const char*, 11> kTexts = {
      "publish", "update",  "pipelineUpdates", "remove", "subscribe", "unsubscribe",
      "dump",    "dumpAll", "interrupt",       "die",    "runTurn"};
  return kTexts.at(static_cast<std::size_t>(kind));
}

namespace {

using protocols::NotifyProxy;
using testing::FakeClient;
using testing::LogRecorder;
using testing::NotifyClient;
using testing::Received;

std::string dateText(const Value& value) {
  if (value.as<Date>() != nullptr) return "date";
  const auto* text = value.as<std::string>();
  return text != nullptr ? *text : "neither date nor text";
}

std::string entryText(const Value& entry) {
  std::string subscribers;
  for (const Value& each : *entry.find("subscribers")->as<Value::List>()) {
    subscribers +=
        fmt::format("{{{} {}}}", each.textOf("subscriber"), dateText(*each.find("updateDate")));
  }
  std::string data;
  if (const Value* published = entry.find("publishedData")) {
    data = " " + (published->isMap() ? published->description() : *published->as<std::string>());
  }
  return fmt::format("{{{} {} {} [{}]{}}}", entry.textOf("name"), entry.textOf("publisher"),
                     dateText(*entry.find("publishDate")), subscribers, data);
}

// Sorts by name: the entries of a dump of everything have no order.
std::string dumpText(const Array& array) {
  std::vector<std::string> entries;
  const Value list = array.value();
  for (const Value& entry : *list.as<Value::List>()) entries.push_back(entryText(entry));
  std::ranges::sort(entries, {},
                    [](const std::string& entry) { return entry.substr(1, entry.find(' ')); });
  return fmt::format("[{}]", fmt::join(entries, ""));
}

constexpr int kPipelinedUpdateCount = 4;

// A client of the production classes and its id in the model.
class ModelClient {
 public:
  ModelClient(ManualExecutor& executor, HandlerModel& model)
      : client_(executor), id_(model.connect(client_.connection()->description())) {}

  HandlerModel::ClientId id() const { return id_; }
  NotifyClient& client() { return client_; }
  // Records how to decode the reply.
  template <auto Member, class... Arguments>
  std::uint64_t request(Arguments... arguments) {
    texts_.push_back([](const FakeClient& client, std::uint64_t request) {
      return textOfResults(*client.resultsOf<Member>(request));
    });
    isDump_.push_back(std::is_same_v<decltype(Member), decltype(&NotifyProxy::dumpNotification)>);
    return client_.request<Member>(std::move(arguments)...);
  }
  // Returns what was received since the last call, except replies to dumps.
  std::vector<std::string> take() {
    std::vector<std::string> texts;
    std::ptrdiff_t updateCount = 0;
    for (const Received& each : client_.received()) {
      if (each.kind == Received::Kind::update) ++updateCount;
      const bool isDump = each.kind == Received::Kind::reply && isDump_.at(each.requestId - 1);
      (isDump ? dumps_ : texts).push_back(textOfReceived(each));
    }
    client_.take();
    receivedBatches_ |= updateCount > client_.sendCount() - sendCount_;
    sendCount_ = client_.sendCount();
    return texts;
  }
  // Replies to dumps up to the last take().
  const std::vector<std::string>& dumps() const { return dumps_; }
  // Returns true if more updates arrived than were sent one by one.
  bool receivedBatches() const { return receivedBatches_; }

 private:
  static std::string textOfResults(const std::tuple<Error>& results) {
    return textOf(std::get<0>(results));
  }
  static std::string textOfResults(const std::tuple<Dictionary, Error>& results) {
    return (std::get<0>(results).isNull() ? "null " : "a dictionary ") +
           textOf(std::get<1>(results));
  }
  static std::string textOfResults(const std::tuple<Array, Error>& results) {
    return dumpText(std::get<0>(results)) + " " + textOf(std::get<1>(results));
  }
  std::string textOfReceived(const Received& received) const {
    switch (received.kind) {
      case Received::Kind::reply:
        return fmt::format("reply {} {}", received.requestId,
                           texts_.at(received.requestId - 1)(client_, received.requestId));
      case Received::Kind::update:
        return updateText(received.name.view(), received.item.value().description()) +
               (received.flags != 0 ? " flags" : "") +
               (received.error ? " " + textOf(received.error) : "");
      case Received::Kind::failure:
        return "failure";
      case Received::Kind::goodbye:
        return "goodbye";
    }
    return "?";
  }

  NotifyClient client_;
  HandlerModel::ClientId id_;
  std::vector<std::string (*)(const FakeClient&, std::uint64_t)> texts_;
  std::vector<bool> isDump_;
  std::vector<std::string> dumps_;
  int sendCount_ = 0;
  bool receivedBatches_ = false;
};

class World {
 public:
  explicit World(bool dumpsInSlices) : dumpsInSlices_(dumpsInSlices) {
    if (dumpsInSlices) service_->work().dumps().setStepWork(1);
    for (std::size_t i = 0; i < kClientCount; ++i)
      clients_.push_back(std::make_unique<ModelClient>(connections_, model_));
  }

  void run(const Step<Request>& step) {
    auto& client = *clients_[step.client];
    const Name name = toName(step.name);
    switch (step.kind) {
      case Request::publish: {
        const auto flags = static_cast<std::uint64_t>(step.client);
        const auto id = client.request<&NotifyProxy::publishItem>(toData(step.value), name, flags,
                                                                  std::int64_t{-1});
        return model_.publish(client.id(), id, step.name, step.value);
      }
      case Request::update:
        return update(client, step.name, step.value);
      case Request::pipelineUpdates:
        for (int i = 0; i < kPipelinedUpdateCount; ++i)
          update(client, step.name, step.value ? std::optional(*step.value + i) : std::nullopt);
        return;
      case Request::remove:
        return model_.remove(
            client.id(), client.request<&NotifyProxy::removePublishedItemForName>(name), step.name);
      case Request::subscribe:
        return model_.subscribe(
            client.id(),
            client.request<&NotifyProxy::subscribeTo>(name, std::uint64_t{step.client}), step.name);
      case Request::unsubscribe:
        client.client().tell<&NotifyProxy::unsubscribeFrom>(name);
        return model_.unsubscribe(client.id(), step.name);
      case Request::dump:
        finishDumpOf(step.client);
        return model_.dump(client.id(),
                           client.request<&NotifyProxy::dumpNotification>(name, step.flag),
                           step.name, step.flag);
      case Request::dumpAll:
        finishDumpOf(step.client);
        return model_.dump(client.id(),
                           client.request<&NotifyProxy::dumpNotification>("_all", step.flag),
                           "_all", step.flag);
      case Request::interrupt:
        client.client().sendNonsense();
        return model_.interrupt(client.id());
      case Request::die:
        client.client().die();
        model_.die(client.id());
        clients_[step.client] = std::make_unique<ModelClient>(connections_, model_);
        return;
      case Request::runTurn:
        return runTurn();
    }
  }

  void update(ModelClient& client, const ModelName& name, std::optional<int> value) {
    const auto id = client.request<&NotifyProxy::updatePublishedItem>(toData(value), toName(name));
    model_.update(client.id(), id, name, value);
  }
  void runTurn() {
    executor_.runOne();
    connections_.runAll();
    model_.runTurn();
  }
  bool isIdle() const { return model_.isIdle() && executor_.scheduledCount() == 0; }

  // A real connection is not read while its own dump is in progress.
  void finishDumpOf(std::size_t client) {
    if (dumping_.insert(client).second) return;
    while (!isIdle()) runTurn();
    dumping_ = {client};
  }

  bool receivedBatches() const {
    return std::ranges::any_of(clients_,
                               [](const auto& client) { return client->receivedBatches(); });
  }
  void compare() {
    for (const auto& client : clients_) {
      RC_ASSERT(client->take() == model_.take(client->id()));
      const auto& expected = model_.dumps(client->id());
      const auto answered = std::min(client->dumps().size(), expected.size());
      RC_ASSERT(
          client->dumps() ==
          std::vector(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(answered)));
      RC_ASSERT(answered == expected.size() || (dumpsInSlices_ && !isIdle()));
    }
  }

 private:
  ManualExecutor connections_;
  ManualExecutor executor_;
  const bool dumpsInSlices_;
  const std::shared_ptr<KLNNotificationService> service_ =
      std::make_shared<KLNNotificationService>(executor_);
  const KLNNotificationService::Override defaultService_{service_};
  HandlerModel model_;
  std::vector<std::unique_ptr<ModelClient>> clients_;
  std::set<std::size_t> dumping_;  // clients whose dump may be in progress
};

class Handlers : public ::testing::TestWithParam<LogLevel> {};

TEST_P(Handlers, ServeTheirClientsAsTheModelPredicts) {
  bool batchesWereReceived = false;
  EXPECT_TRUE(rc::check([&] {
    const auto steps = *sequencesOf<Request>({{6, Request::publish},
                                              {3, Request::update},
                                              {4, Request::pipelineUpdates},
                                              {3, Request::remove},
                                              {7, Request::subscribe},
                                              {3, Request::unsubscribe},
                                              {2, Request::dump},
                                              {3, Request::dumpAll},
                                              {1, Request::interrupt},
                                              {2, Request::die},
                                              {9, Request::runTurn}});
    const LogRecorder log(GetParam());
    World world(*rc::gen::arbitrary<bool>());
    for (const auto& step : steps) {
      world.run(step);
      world.compare();
    }
    while (!world.isIdle()) world.runTurn();
    world.run({Request::dumpAll, 0, std::nullopt, std::nullopt, true});
    while (!world.isIdle()) world.runTurn();
    world.compare();
    batchesWereReceived |= world.receivedBatches();
  }));
  EXPECT_EQ(batchesWereReceived, GetParam() != LogLevel::debug);
}

INSTANTIATE_TEST_SUITE_P(AtEachLevel, Handlers,
                         ::testing::Values(LogLevel::standard, LogLevel::debug),
                         [](const auto& each) {
                           return each.param == LogLevel::debug ? "debug" : "standard";
                         });

}  // namespace
}  // namespace keel::model
