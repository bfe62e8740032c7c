// SPDX-License-Identifier: Apache-2.0
// Has the example module greet somebody; the module is started if it does not run.
//
//   greet SERVICE NAME
#include <iostream>
#include <string_view>

#include "client/module_connection.h"
#include "examples/greeter_proxy.h"

int main(int count, char** words) {
  if (count != 3) {
    std::cerr << "usage: greet SERVICE NAME\n";
    return 2;
  }
  const auto module = keel::KLNModuleConnection<GreeterProxy>::open(words[1]);
  if (!module) {
    std::cerr << "greet: " << module.error().message() << "\n";
    return 1;
  }
  const auto answer = (*module)->call<&GreeterProxy::greet>(keel::String(std::string_view(words[2])));
  if (!answer) {
    std::cerr << "greet: " << answer.error().message() << "\n";
    return 1;
  }
  std::cout << std::get<0>(*answer).view() << std::endl;
  return 0;
}
