// SPDX-License-Identifier: Apache-2.0
// The program of the module keel_example.bundle: greets its clients and publishes their names. It
// is started when a client connects, and exits after a while without clients.
//
//   keel_example SERVICE [IDLE-MILLISECONDS]
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "client/client.h"
#include "client/module_listener.h"
#include "examples/greeter_proxy.h"

namespace {

constexpr const char* kItem = "example.greeted";

// One object per client. Its methods run on the library's thread, so its requests to keeld must not
// block.
class Greeter final : public GreeterProxy {
 public:
  Greeter(keel::KLNClient& client, uid_t uid) : client_(client), uid_(uid) {}

  void greet(keel::String name, keel::xpc::Reply<keel::String> withHandler) override {
    const std::string who(name.view());
    auto data = keel::Value::map({{"name", who}, {"uid", uid_}, {"greeted", keel::Date::now()}});
    // The client is answered once keeld has accepted the update.
    auto reply = std::make_shared<keel::xpc::Reply<keel::String>>(std::move(withHandler));
    const auto begun =
        client_.update(kItem, std::move(data)).then([reply, who](const auto& result) {
          if (!result) std::cerr << "keel_example: " << result.error().message() << "\n";
          (*reply)("Hello, " + who + "!");
        });
    if (!begun) std::cerr << "keel_example: " << begun.error().message() << "\n";
  }

 private:
  keel::KLNClient& client_;
  const uid_t uid_;
};

}  // namespace

int main(int count, char** words) {
  if (count != 2 && count != 3) {
    std::cerr << "usage: keel_example SERVICE [IDLE-MILLISECONDS]\n";
    return 2;
  }
  const auto client = keel::KLNClient::create();
  const auto published = client->publish(kItem, keel::Value::map({})).wait();
  if (!published) {
    std::cerr << "keel_example: " << published.error().message() << "\n";
    return 1;
  }
  keel::KLNModuleListener::Options options;
  if (count == 3) options.idleTime = std::chrono::milliseconds(std::atoi(words[2]));
  const auto listener = keel::KLNModuleListener::create<GreeterProxy>(
      words[1],
      [&](const keel::ModulePeer& peer) {
        return std::make_shared<Greeter>(*client, peer.effectiveUserIdentifier);
      },
      options);
  if (!listener) {
    std::cerr << "keel_example: " << listener.error().message() << "\n";
    return 1;
  }
  (*listener)->runUntilIdle();
  return 0;
}
