// SPDX-License-Identifier: Apache-2.0
#include "notify/dump_answer.h"

#include <string_view>
#include <utility>

#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/check.h"

namespace keel {

namespace {

constexpr std::string_view kUnconnected = "<unconnected>";

// A longer answer goes to a file, in portions of this size.
constexpr std::size_t kPortionBytes = std::size_t{64} << 10;

void writeDate(cbor::Writer& writer, const std::optional<Date>& date, std::string_view otherwise) {
  if (date) {
    writer.date(*date);
  } else {
    writer.text(otherwise);
  }
}

}  // namespace

DumpAnswer::DumpAnswer(std::size_t entryCount, bool withData)
    : withData_(withData), missingCount_(entryCount) {
  cbor::Writer(bytes_).array(entryCount);
}

void DumpAnswer::append(KLNPublishedObject& item) {
  KEEL_CHECK(missingCount_ > 0);
  --missingCount_;
  cbor::Writer writer(bytes_);
  writer.map(withData_ ? 5 : 4);
  writer.text("name");
  if (item.name().isNull()) {
    writer.null();
  } else {
    writer.text(item.name().view());
  }
  writer.text("publisher");
  appendConnection(item.ownerReference(), item.owner().get());
  writer.text("publishDate");
  writeDate(writer, item.lastUpdated(), "<never published>");
  writer.text("subscribers");
  appendSubscribers(item);
  if (withData_) {
    writer.text("publishedData");
    if (item.data().isNull()) {
      writer.text("<no data>");
    } else {
      appendEncoded(item.data().encoded());
    }
  }
  if (bytes_.size() >= kPortionBytes) moveToFile();
}

void DumpAnswer::appendSubscribers(KLNPublishedObject& item) {
  SubscriberSet* const subscribers = item.subscribers();
  cbor::Writer writer(bytes_);
  writer.array(subscribers != nullptr ? subscribers->count() : 0);
  if (subscribers == nullptr) return;
  subscribers->forEach([this, &writer](const KLNSubscriptionObject& subscription) {
    writer.map(2);
    writer.text("subscriber");
    appendConnection(subscription.ownerReference(), subscription.borrowedOwner());
    writer.text("updateDate");
    writeDate(writer, subscription.lastUpdated(), "<never updated>");
  });
}

// `connection` is what `reference` refers to; null if that is gone.
void DumpAnswer::appendConnection(const std::weak_ptr<xpc::Connection>& reference,
                                  const xpc::Connection* connection) {
  cbor::Writer writer(bytes_);
  if (connection != nullptr) return writer.text(connection->description());
  const auto remembered = endedConnections_.find(reference);
  writer.text(remembered != endedConnections_.end() ? std::string_view(remembered->second)
                                                    : kUnconnected);
}

void DumpAnswer::keepDescription(const std::shared_ptr<xpc::Connection>& connection) {
  endedConnections_.try_emplace(connection, connection->description());
}

// Large data is written to the file from where it lies.
void DumpAnswer::appendEncoded(std::span<const std::byte> encoded) {
  if (encoded.size() >= kPortionBytes) moveToFile();
  if (encoded.size() >= kPortionBytes && file_) return writeToFile(encoded);
  cbor::Writer(bytes_).encoded(encoded);
}

// Where no file can be made (no descriptors), the answer stays on the heap.
void DumpAnswer::moveToFile() {
  if (!std::exchange(triedFile_, true)) {
    if (auto made = SealedMemoryWriter::create()) file_ = std::move(*made);
  }
  if (!file_) return;
  writeToFile(bytes_);
  bytes_.clear();
}

void DumpAnswer::writeToFile(std::span<const std::byte> bytes) {
  if (failure_) return;
  fileBytes_ += bytes.size();
  if (const auto written = file_->append(bytes); !written) failure_ = written.error();
}

std::expected<Array, std::error_code> DumpAnswer::take() {
  KEEL_CHECK(missingCount_ == 0);
  if (!file_) return Array(Buffer::copyOf(bytes_));
  moveToFile();
  if (failure_) return std::unexpected(failure_);
  auto sealed = std::move(*file_).seal();
  if (!sealed) return std::unexpected(sealed.error());
  return Array(std::move(*sealed));
}

}  // namespace keel
