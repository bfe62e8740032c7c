// SPDX-License-Identifier: Apache-2.0
#include "modules/module_table.h"

#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/check.h"

namespace keel {

ModuleTable::ModuleTable() {
  encode();
}

void ModuleTable::set(const String& key, const String& text) {
  KEEL_CHECK(!key.isNull());
  if (text.isNull()) {
    texts_.erase(std::string(key.view()));
  } else {
    texts_.insert_or_assign(std::string(key.view()), text);
  }
  encode();
}

String ModuleTable::at(const String& key) const {
  const auto found = key.isNull() ? texts_.end() : texts_.find(key.view());
  return found == texts_.end() ? String() : found->second;
}

std::vector<String> ModuleTable::allKeys() const {
  std::vector<String> keys;
  keys.reserve(texts_.size());
  for (const auto& [key, text] : texts_) keys.emplace_back(key);
  return keys;
}

void ModuleTable::encode() {
  ByteSink bytes;
  cbor::Writer writer(bytes);
  writer.map(texts_.size());
  for (const auto& [key, text] : texts_) {
    writer.text(key);
    writer.text(text.view());
  }
  encoded_ = Dictionary(Buffer::copyOf(bytes));
}

}  // namespace keel
