// SPDX-License-Identifier: Apache-2.0
// Sends requests, with arguments of ordinary types, to a keeld that is not running, and prints the
// kind of each error.
#include <cstdio>
#include <string>

#include "client/auth_client.h"
#include "client/client.h"
#include "client/module_listener.h"

int main() {
  const keel::ClientOptions options{.serviceDirectory = "/nonexistent", .reconnect = false};
  const auto client = keel::KLNClient::create(options);
  const std::string name = "weather";
  const long long degrees = 21;
  const auto published =
      client->publish(name, keel::Value::map({{"degrees", degrees}, {"place", name + "!"}})).wait();
  const auto checked = keel::KLNAuthClient::create(options)->check().wait();
  std::printf("%s %s\n", published ? "none" : std::string(nameOf(published.error().kind())).c_str(),
              checked ? "none" : std::string(nameOf(checked.error().kind())).c_str());
}
