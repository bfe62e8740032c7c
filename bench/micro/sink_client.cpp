// SPDX-License-Identifier: Apache-2.0
#include "bench/micro/sink_client.h"

#include <string>
#include <utility>
#include <vector>

#include "protocols/subscriber_proxy.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/value.h"

namespace keel::bench {

class SinkClient::SinkTransport final : public xpc::Transport {
 public:
  explicit SinkTransport(SinkClient& client) : client_(client) {}

  xpc::TransportContext& context() override { return context_; }
  // The client sends its hello immediately.
  void start(Receiver& receiver) override {
    xpc::OutgoingMessage hello;
    cbor::Writer writer = hello.begin();
    writer.array(4);
    writer.unsignedInteger(static_cast<std::uint64_t>(xpc::MessageKind::hello));
    writer.unsignedInteger(xpc::kProtocolVersion);
    const auto& selectors = xpc::MethodsOf<protocols::SubscriberProxy>::kSelectors;
    writer.array(selectors.size());
    for (const auto selector : selectors) writer.text(selector);
    writer.map(0);
    KEEL_CHECK(hello.finish());
    std::vector<FileDescriptor> noFiles;
    receiver.onFrame(std::span(hello.bytes()).subspan(xpc::kLengthBytes), noFiles);
  }
  void send(const xpc::OutgoingMessage& message, EndOfTurnHook::Urgency) override {
    client_.sentBytes_ += message.wireBytes();
  }
  void setReading(bool) override {}
  void liftHelloBound() override {}
  void close(std::string_view) override {}
  bool maySendFiles() override { return true; }
  void perform(Block block) override { block(); }
  bool onIoThread() const override { return true; }
  void performLater(Block block) override { block(); }

 private:
  SinkClient& client_;
  // Never runs: only the pools are used.
  Reactor reactor_;
  xpc::TransportContext context_{reactor_};
};

SinkClient::SinkClient() {
  const xpc::PeerIdentity peer{
      .pid = 1, .uid = 0, .gid = 0, .startTime = 1, .auditSession = 1, .processName = "sink"};
  connection_ = xpc::Connection::create(peer, std::make_unique<SinkTransport>(*this),
                                        {.takesDescriptors = false});
  connection_->setRemoteObjectInterface(
      xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
  connection_->resume();
}

SinkClient::~SinkClient() {
  connection_->invalidate();
}

Dictionary itemOf(std::size_t bytes) {
  return Dictionary(Value::map({{"v", std::string(bytes, 'x')}}));
}

}  // namespace keel::bench
