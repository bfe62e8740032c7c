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

// What a dump answers, entry by entry, encoded at once: published data are spliced in as they came,
// never decoded. A long answer grows in a memory file, so that it is not copied again to be sent.
// Lives on the notification input queue.
class DumpAnswer {
 public:
  // For so many entries.
  DumpAnswer(std::size_t entryCount, bool withData);

  void describe(KLNPublishedObject& item);
  // How many entries are still to come.
  std::size_t missingCount() const { return missingCount_; }
  // Of what has been described.
  std::size_t sizeBytes() const { return fileBytes_ + bytes_.size(); }

  // From now on this connection is described as it is now, though it may end before the answer is
  // whole.
  void remember(const std::shared_ptr<xpc::Connection>& connection);

  // Once, when nothing is missing. Fails when the memory for a long answer could not be had.
  std::expected<Array, std::error_code> take();

 private:
  using Texts = std::map<std::weak_ptr<xpc::Connection>, std::string,
                         std::owner_less<std::weak_ptr<xpc::Connection>>>;

  void describeConnection(const std::weak_ptr<xpc::Connection>& reference,
                          const xpc::Connection* connection);
  void describeSubscribers(KLNPublishedObject& item);
  void append(std::span<const std::byte> encoded);
  void moveToFile();
  void writeToFile(std::span<const std::byte> bytes);

  const bool withData_;
  std::size_t missingCount_;
  ByteSink bytes_;  // what is not in the file, and follows it
  std::optional<GrowingMemory> file_;
  bool triedFile_ = false;
  std::size_t fileBytes_ = 0;
  std::error_code failure_;
  Texts endedConnections_;
};

}  // namespace keel
