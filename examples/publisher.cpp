// SPDX-License-Identifier: Apache-2.0
// Publishes a greeting and updates it with every line of standard input; at its end the item loses
// its publisher.
//
//   publisher greeting
#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>

#include "client/client.h"

namespace {

keel::Value greeting(const std::string& text, std::int64_t version) {
  return keel::Value::map({{"text", text}, {"version", version}, {"written", keel::Date::now()}});
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::cerr << "usage: publisher NAME\n";
    return 2;
  }
  const std::string_view name = words[1];
  const auto client = keel::KLNClient::create();

  // The client republishes after a lost connection. This reports that another publisher was faster.
  client->setPublicationHandler([](const keel::PublicationState& state) {
    std::cerr << "publisher: lost the name: " << state.error.description() << "\n";
  });

  std::int64_t version = 1;
  if (const auto result = client->publish(name, greeting("hello", version)).wait(); !result) {
    std::cerr << "publisher: " << result.error().message() << "\n";
    return 1;
  }
  for (std::string line; std::getline(std::cin, line);) {
    if (const auto result = client->update(name, greeting(line, ++version)).wait(); !result) {
      std::cerr << "publisher: " << result.error().message() << "\n";
    }
  }
  return 0;
}
