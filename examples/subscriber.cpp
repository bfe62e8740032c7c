// SPDX-License-Identifier: Apache-2.0
// Follows one name and prints its events until standard input ends.
//
//   subscriber greeting
#include <iostream>
#include <string>
#include <string_view>

#include "client/client.h"

namespace {

void print(const keel::Event& event) {
  if (event.error) {
    std::cout << "error: " << event.error.description() << std::endl;
    return;
  }
  const keel::Value data = event.data();
  std::cout << event.name.view() << ": " << data.textOf("text", "(no text)") << "   "
            << data.description() << std::endl;
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::cerr << "usage: subscriber NAME\n";
    return 2;
  }
  const auto client = keel::KLNClient::create();
  client->setStateHandler([](const keel::ConnectionState& state) {
    if (state.kind == keel::ConnectionState::Kind::disconnected)
      std::cerr << "subscriber: " << state.reason << "\n";
  });

  // The subscription lasts as long as this object; a lost connection does not end it.
  const auto subscription = client->subscribe(words[1], print).wait();
  if (!subscription) {
    std::cerr << "subscriber: " << subscription.error().message() << "\n";
    return 1;
  }
  for (std::string line; std::getline(std::cin, line);) {
  }
  return 0;
}
