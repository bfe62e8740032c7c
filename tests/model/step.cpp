// SPDX-License-Identifier: Apache-2.0
#include "tests/model/step.h"

#include <fmt/format.h>

#include "platform/product/product.h"
#include "runtime/foundation/value.h"

namespace keel::model {

Name toName(const ModelName& name) {
  return name ? Name(*name) : Name(nullptr);
}

Dictionary toData(std::optional<int> value) {
  return value ? Dictionary(Value::map({{"v", *value}})) : Dictionary();
}

std::string textOf(const ModelName& name) {
  return name.value_or("(null)");
}

std::string textOfData(std::optional<int> value) {
  return value ? fmt::format("{{\"v\": {}}}", *value) : "null";
}

std::string textOf(const Error& error) {
  if (!error) return "ok";
  if (error.domain() != String(KLNErrorDomain)) return error.description();
  const Value userInfo = error.userInfo().value();
  return textOfError(static_cast<int>(error.code()), userInfo.textOf(NSLocalizedDescriptionKey));
}

std::string textOfError(int code, std::string_view description) {
  return fmt::format("error {} '{}'", code, description);
}

std::string updateText(std::string_view name, std::string_view data) {
  return fmt::format("update {} {}", name, data);
}

}  // namespace keel::model
