// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/exception.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>

namespace keel {

namespace {

struct Free {
  void operator()(void* block) const { std::free(block); }
};

// Demangles the name between '(' and '+' in "program(_ZN4keel3fooEv+0x12) [0x55...]".
std::string demangled(std::string_view symbol) {
  const std::size_t open = symbol.find('(');
  const std::size_t plus = open == symbol.npos ? symbol.npos : symbol.find('+', open);
  if (plus == symbol.npos) return std::string(symbol);
  const std::string mangled(symbol.substr(open + 1, plus - open - 1));
  int status = 0;
  const std::unique_ptr<char, Free> name(
      abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status));
  if (status != 0 || name == nullptr) return std::string(symbol);
  return std::string(symbol.substr(0, open + 1)).append(name.get()).append(symbol.substr(plus));
}

[[gnu::noinline]] std::vector<std::string> captureStack() {
  void* frames[64];
  const int count = ::backtrace(frames, 64);
  std::vector<std::string> lines;
  const std::unique_ptr<char*, Free> symbols(count > 0 ? ::backtrace_symbols(frames, count)
                                                       : nullptr);
  // The first frame is this function.
  if (symbols != nullptr) {
    for (const char* symbol :
         std::span(symbols.get(), static_cast<std::size_t>(count)).subspan(1)) {
      lines.push_back(demangled(symbol));
    }
  }
  if (lines.empty()) lines.emplace_back("(no symbols)");
  return lines;
}

}  // namespace

Exception::Exception(std::string name, std::string reason)
    : name_(std::move(name)), reason_(std::move(reason)), callStackSymbols_(captureStack()) {}

}  // namespace keel
