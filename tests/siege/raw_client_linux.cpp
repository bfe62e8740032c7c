// SPDX-License-Identifier: Apache-2.0
#include "tests/siege/raw_client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "runtime/foundation/cbor_writer.h"

namespace keel::siege {

namespace {

// The length, the head of the message's array, and its kind.
constexpr std::size_t kHeadBytes = 4 + 2;
constexpr char kOneWay = 2;
constexpr char kReply = 3;

void check(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::system_category(), what);
}

}  // namespace

RawClient::RawClient(const std::string& path)
    : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  check(bool(socket_), "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  check(::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
        "connect");
  append(Value::list(
      {0, 1, Value::list({"updateSubscriptionFor:withItem:flags:error:"}), Value::map({})}));
}

void RawClient::append(const Value& message) {
  const std::vector<std::byte> bytes = cbor::encode(message);
  for (int i = 0; i < 4; ++i) output_.push_back(static_cast<char>(bytes.size() >> (8 * i)));
  output_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::uint64_t RawClient::request(NotifyMethod method, const Value& arguments) {
  append(Value::list({1, ++lastId_, static_cast<int>(method), arguments}));
  return lastId_;
}

void RawClient::write() {
  while (hasOutput() && !ended_) {
    const ssize_t sent = ::send(socket_.get(), output_.data() + sentBytes_,
                                output_.size() - sentBytes_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
      ended_ = errno != EAGAIN && errno != EINTR;
      return;
    }
    sentBytes_ += static_cast<std::size_t>(sent);
  }
  output_.clear();
  sentBytes_ = 0;
}

void RawClient::read(std::size_t limitBytes) {
  thread_local std::array<std::byte, 256 << 10> buffer;
  const ssize_t got =
      ::recv(socket_.get(), buffer.data(), std::min(limitBytes, buffer.size()), MSG_DONTWAIT);
  if (got > 0) return countFrames(std::span(buffer).first(static_cast<std::size_t>(got)));
  ended_ = got == 0 || (errno != EAGAIN && errno != EINTR);
}

void RawClient::countFrames(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const std::size_t skipped = std::min(skippedBytes_, bytes.size());
    skippedBytes_ -= skipped;
    bytes = bytes.subspan(skipped);
    if (bytes.empty()) return;
    const std::size_t wanted = std::min(kHeadBytes - head_.size(), bytes.size());
    head_.append(reinterpret_cast<const char*>(bytes.data()), wanted);
    bytes = bytes.subspan(wanted);
    if (head_.size() < kHeadBytes) return;
    std::uint32_t length = 0;
    std::memcpy(&length, head_.data(), 4);
    skippedBytes_ = length - (kHeadBytes - 4);
    if (head_[5] == kReply) ++replyCount_;
    if (head_[5] == kOneWay) ++deliveryCount_;
    head_.clear();
  }
}

}  // namespace keel::siege
