// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "runtime/foundation/byte_sink.h"
#include "runtime/foundation/collections.h"
#include "runtime/foundation/sealed_memory.h"
#include "runtime/xpc/connection.h"

namespace keel {

class KLNPublishedObject;

// The answer to a dump, encoded entry by entry: published data is spliced in as it came, never
// decoded. A long answer grows in a memory file, so that it is not copied again to be sent. Lives
// on the notification input queue.
class DumpAnswer {
 public:
  // The caller appends exactly `entryCount` entries.
  DumpAnswer(std::size_t entryCount, bool withData);

  void append(KLNPublishedObject& item);
  // Entries still to come.
  std::size_t missingCount() const { return missingCount_; }
  // Size of the entries appended so far.
  std::size_t sizeBytes() const { return fileBytes_ + bytes_.size(); }

  // Keeps the description of a connection that may end before the answer is complete.
  void keepDescription(const std::shared_ptr<xpc::Connection>& connection);

  // Hands out the answer, once, when nothing is missing. Fails when a long answer found no memory.
  std::expected<Array, std::error_code> take();

 private:
  using Texts = std::map<std::weak_ptr<xpc::Connection>, std::string,
                         std::owner_less<std::weak_ptr<xpc::Connection>>>;

  void appendConnection(const std::weak_ptr<xpc::Connection>& reference,
                        const xpc::Connection* connection);
  void appendSubscribers(KLNPublishedObject& item);
  void appendEncoded(std::span<const std::byte> encoded);
  void moveToFile();
  void writeToFile(std::span<const std::byte> bytes);

  const bool withData_;
  std::size_t missingCount_;
  ByteSink bytes_;  // what is not in the file, and follows it
  std::optional<SealedMemoryWriter> file_;
  bool triedFile_ = false;
  std::size_t fileBytes_ = 0;
  std::error_code failure_;
  Texts endedConnections_;
};

}  // namespace keel
