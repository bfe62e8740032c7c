// SPDX-License-Identifier: Apache-2.0
// Calls the example module, which is started on demand. With - as the name it stays connected and
// sends each line of its input.
//
//   greet SERVICE NAME
//   greet SERVICE -
#include <iostream>
#include <string>
#include <string_view>

#include "client/module_connection.h"
#include "examples/greeter_proxy.h"

namespace {

using Module = keel::KLNModuleConnection<GreeterProxy>;

bool greet(Module& module, std::string_view name) {
  const auto answer = module.call<&GreeterProxy::greet>(keel::String(name));
  if (!answer) {
    std::cerr << "greet: " << answer.error().message() << "\n";
    return false;
  }
  std::cout << std::get<0>(*answer).view() << std::endl;
  return true;
}

}  // namespace

int main(int count, char** words) {
  if (count != 3) {
    std::cerr << "usage: greet SERVICE NAME|-\n";
    return 2;
  }
  const auto module = Module::open(words[1]);
  if (!module) {
    std::cerr << "greet: " << module.error().message() << "\n";
    return 1;
  }
  const std::string_view name = words[2];
  if (name != "-") return greet(**module, name) ? 0 : 1;
  for (std::string line; std::getline(std::cin, line);) {
    if (!greet(**module, line)) return 1;
  }
  return 0;
}
