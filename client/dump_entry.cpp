// SPDX-License-Identifier: Apache-2.0
#include "client/dump_entry.h"

#include <utility>

namespace keel {

namespace {

// Placeholder for an absent connection or date in a dump.
constexpr std::string_view kUnconnected = "<unconnected>";

// Reads the text at `key`, none for kUnconnected; returns false if it is neither.
bool readConnection(const Value& entry, std::string_view key,
                    std::optional<std::string>& connection) {
  const Value* found = entry.find(key);
  const auto* text = found == nullptr ? nullptr : found->as<std::string>();
  if (text == nullptr) return false;
  if (*text != kUnconnected) connection = *text;
  return true;
}

// Reads the date at `key`, none for a text; returns false if it is neither.
bool readDate(const Value& entry, std::string_view key, std::optional<Date>& date) {
  const Value* found = entry.find(key);
  if (found == nullptr) return false;
  if (const auto* known = found->as<Date>()) date = *known;
  return date || found->as<std::string>() != nullptr;
}

bool readSubscribers(const Value& entry, std::vector<DumpEntry::Subscriber>& subscribers) {
  const Value* found = entry.find("subscribers");
  const auto* list = found == nullptr ? nullptr : found->as<Value::List>();
  if (list == nullptr) return false;
  for (const Value& each : *list) {
    DumpEntry::Subscriber& subscriber = subscribers.emplace_back();
    if (!readConnection(each, "subscriber", subscriber.connection) ||
        !readDate(each, "updateDate", subscriber.updated))
      return false;
  }
  return true;
}

bool readEntry(const Value& described, DumpEntry& entry) {
  const Value* name = described.find("name");
  const auto* text = name == nullptr ? nullptr : name->as<std::string>();
  if (text == nullptr) return false;
  entry.name = *text;
  if (const Value* data = described.find("publishedData"); data != nullptr && data->isMap())
    entry.data = *data;
  return readConnection(described, "publisher", entry.publisher) &&
         readDate(described, "publishDate", entry.published) &&
         readSubscribers(described, entry.subscribers);
}

}  // namespace

ClientResult<std::vector<DumpEntry>> readDump(const Array& description) {
  std::vector<DumpEntry> entries;
  const Value decoded = description.value();
  if (const auto* list = decoded.as<Value::List>()) {
    for (const Value& each : *list) {
      if (!readEntry(each, entries.emplace_back())) {
        return std::unexpected(
            ClientError(ClientError::Kind::refused,
                        "keeld described an item in a way that is not understood; "
                        "this library and keeld may be of different versions"));
      }
    }
  }
  return entries;
}

}  // namespace keel
