// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_client.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/wire/flat_message.h"
#include "tests/support/memory_transport.h"

namespace keel::testing {

using protocols::SubscriberProxy;

namespace {

std::span<const std::byte> requireItem(cbor::Cursor& cursor) {
  const auto item = cursor.item(xpc::limits::kDepth + 2);
  KEEL_CHECK(item.has_value());
  return *item;
}

}  // namespace

// Everything runs on the test's thread, which acts as the I/O thread.
class FakeClient::FakeTransport final : public MemoryTransport {
 public:
  FakeTransport(FakeClient& client, ManualExecutor& executor)
      : client_(&client), later_(SerialQueue::create("fake I/O thread", executor)) {}
  ~FakeTransport() override {
    if (client_ != nullptr) client_->transport_ = nullptr;
  }

  xpc::TransportContext& context() override { return context_; }
  void start(Receiver& receiver) override {
    receiver_ = &receiver;
    client_->sayHello();
  }
  void send(const xpc::OutgoingMessage& message, EndOfTurnHook::Urgency) override {
    if (client_ == nullptr) return;
    ++client_->sendCount_;
    carryAll(message);
  }
  void close(std::string_view goodbye) override {
    if (client_ == nullptr) return;
    if (!goodbye.empty())
      client_->received_.push_back({.kind = Received::Kind::goodbye, .text = std::string(goodbye)});
    detach();
  }
  void perform(Block block) override { block(); }
  bool onIoThread() const override { return true; }
  void performLater(Block block) override { later_->async(std::move(block)); }

  void deliver(std::span<const std::byte> frame) {
    if (receiver_ != nullptr) arrive(*receiver_, frame);
  }
  // The client is dead: nothing is sent or received any more.
  Receiver* detach() {
    if (client_ != nullptr) client_->transport_ = nullptr;
    client_ = nullptr;
    return std::exchange(receiver_, nullptr);
  }

 private:
  void carry(std::span<const std::byte> frame) override {
    if (client_ != nullptr) client_->onMessage(frame);
  }

  FakeClient* client_;
  Receiver* receiver_ = nullptr;
  std::shared_ptr<SerialQueue> later_;
  // Never runs: only the pools are used.
  Reactor reactor_;
  xpc::TransportContext context_{reactor_};
};

// The object that the client exports.
class FakeClient::Recorder final : public SubscriberProxy {
 public:
  explicit Recorder(std::vector<Received>& received) : received_(received) {}

  void updateSubscriptionFor(Name name, Dictionary withItem, std::uint64_t flags,
                             Error error) override {
    received_.push_back({.kind = Received::Kind::update,
                         .name = std::move(name),
                         .item = std::move(withItem),
                         .flags = flags,
                         .error = std::move(error)});
  }
  void getClientInfoViaHandler(xpc::Reply<Dictionary> handler) override { handler(nullptr); }

 private:
  std::vector<Received>& received_;
};

FakeClient::FakeClient(ManualExecutor& executor, xpc::PeerIdentity peer)
    : recorder_(std::make_shared<Recorder>(received_)) {
  for (const auto selector : xpc::MethodsOf<SubscriberProxy>::kSelectors)
    selectors_.emplace_back(selector);
  auto transport = std::make_unique<FakeTransport>(*this, executor);
  transport_ = transport.get();
  connection_ =
      xpc::Connection::create(std::move(peer), std::move(transport), {.takesDescriptors = false});
}

FakeClient::~FakeClient() {
  die();
}

xpc::PeerIdentity FakeClient::identity(pid_t pid, std::int32_t auditSession) {
  return {.pid = pid,
          .uid = 501,
          .gid = 20,
          .startTime = 1,
          .auditSession = auditSession,
          .processName = "fake"};
}

void FakeClient::die(std::string_view reason) {
  xpc::Transport::Receiver* const receiver = transport_ != nullptr ? transport_->detach() : nullptr;
  // The connection keeps itself alive during the call, as in the daemon.
  connection_.reset();
  if (receiver != nullptr) receiver->onClosed(reason);
}

std::vector<Received> FakeClient::take() {
  return std::exchange(received_, {});
}

bool FakeClient::isAnswered(std::uint64_t requestId) const {
  return std::ranges::any_of(received_, [requestId](const Received& each) {
    return (each.kind == Received::Kind::reply || each.kind == Received::Kind::failure) &&
           each.requestId == requestId;
  });
}

void FakeClient::sendNonsense() {
  xpc::OutgoingMessage message;
  message.begin().text("nonsense");
  message.finish();
  deliver(message);
}

void FakeClient::sayHello() {
  xpc::OutgoingMessage message;
  cbor::Writer writer = message.begin();
  writer.array(4);
  writer.unsignedInteger(static_cast<std::uint64_t>(xpc::MessageKind::hello));
  writer.unsignedInteger(xpc::kProtocolVersion);
  writer.array(selectors_.size());
  for (const auto& selector : selectors_) writer.text(selector);
  writer.map(0);
  message.finish();
  deliver(message);
}

void FakeClient::deliver(const xpc::OutgoingMessage& message) {
  xpc::forEachFrame(message, [this](std::span<const std::byte> frame) {
    if (transport_ != nullptr) transport_->deliver(frame);
  });
}

void FakeClient::onMessage(std::span<const std::byte> frame) {
  cbor::Cursor cursor(frame);
  std::uint64_t count = 0;
  std::uint64_t kind = 0;
  KEEL_CHECK(cursor.array(count) && cursor.unsignedInteger(kind));
  switch (static_cast<xpc::MessageKind>(kind)) {
    case xpc::MessageKind::hello:
      return onHello(cursor);
    case xpc::MessageKind::oneWay: {
      std::uint64_t method = 0;
      std::uint64_t argumentCount = 0;
      KEEL_CHECK(cursor.unsignedInteger(method) && cursor.array(argumentCount));
      KEEL_CHECK(method < selectors_.size());
      const auto& interface = xpc::Interface::interfaceWithProtocol<SubscriberProxy>();
      const auto place = std::ranges::find(interface.selectors(), selectors_[method]) -
                         interface.selectors().begin();
      xpc::SealedValues noFiles;
      xpc::ArgumentReader reader(cursor.rest(), noFiles, xpc::limits::kFrameBytes);
      xpc::Interface::Call call{nullptr, 0};
      SubscriberProxy* const object = recorder_.get();
      KEEL_CHECK(interface.dispatchAt(static_cast<std::uint64_t>(place))(object, reader,
                                                                         argumentCount, call));
      return;
    }
    case xpc::MessageKind::reply:
    case xpc::MessageKind::failure:
      return onAnswer(static_cast<xpc::MessageKind>(kind), cursor);
    default:
      checkFailed("a message that the daemon sends", __FILE__, __LINE__);
  }
}

void FakeClient::onHello(cbor::Cursor& cursor) {
  std::uint64_t version = 0;
  std::uint64_t count = 0;
  KEEL_CHECK(cursor.unsignedInteger(version) && version == xpc::kProtocolVersion &&
             cursor.array(count));
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string_view selector;
    KEEL_CHECK(cursor.text(selector));
    daemonSelectors_.emplace_back(selector);
  }
}

void FakeClient::onAnswer(xpc::MessageKind kind, cbor::Cursor& cursor) {
  Received answer{.kind = kind == xpc::MessageKind::reply ? Received::Kind::reply
                                                          : Received::Kind::failure};
  if (!cursor.null()) KEEL_CHECK(cursor.unsignedInteger(answer.requestId));
  if (kind == xpc::MessageKind::reply) {
    const auto results = requireItem(cursor);
    answer.results.assign(results.begin(), results.end());
  } else {
    std::uint64_t code = 0;
    std::string_view text;
    KEEL_CHECK(cursor.unsignedInteger(code) && cursor.text(text));
    answer.text = text;
  }
  KEEL_CHECK(cursor.atEnd());
  received_.push_back(std::move(answer));
}

std::uint64_t FakeClient::numberOf(std::string_view selector) const {
  const auto found = std::ranges::find(daemonSelectors_, selector);
  KEEL_CHECK(found != daemonSelectors_.end());
  return static_cast<std::uint64_t>(found - daemonSelectors_.begin());
}

}  // namespace keel::testing
