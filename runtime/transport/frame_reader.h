// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/transport/frame_splitter.h"
#include "runtime/transport/transport_context.h"

namespace keel::xpc {

// The receiving half of a stream: one recvmsg(2) at a time into the buffer of the context, where
// frames are found and handed out in place. Only an incomplete frame is copied, so an idle stream
// owns no buffer. Lives on the reactor's thread.
//
//   const auto outcome = reader.read(socket, context);
//   while (reader.next() == FrameSplitter::Found::frame) use(reader.frame(), reader.files());
//   reader.endRead();
class FrameReader {
 public:
  struct Outcome {
    enum class Kind : std::uint8_t {
      bytes,
      nothing,    // the socket is empty
      end,        // the peer closed it cleanly
      failed,     // with errno `problem`
      violation,  // the peer sent descriptors that it may not send; `violation` is its goodbye
    };
    Kind kind = Kind::bytes;
    bool wasShort = false;  // the socket had no more bytes
    int problem = 0;
    std::string_view violation{};
    std::vector<FileDescriptor> foreign{};  // to be closed in the background
  };

  // Frames over `frameLimitBytes` are skipped.
  explicit FrameReader(std::size_t frameLimitBytes);
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  void setFrameLimit(std::size_t limitBytes) { splitter_.setLimit(limitBytes); }
  // Has everything read wiped when it is dropped.
  void setConfidential();

  // Reads into the buffer of `context`, which nobody else uses until endRead().
  Outcome read(int socket, TransportContext& context);
  // Resumes with the kept bytes, without reading.
  void resume();
  // Keeps the rest of the last read; from here on others may use the buffer. Idempotent.
  void endRead();

  FrameSplitter::Found next() {
    const FrameSplitter::Found found = splitter_.next();
    hasFound_ = hasFound_ || found != FrameSplitter::Found::nothing;
    return found;
  }
  std::span<const std::byte> frame() const { return splitter_.frame(); }
  std::size_t frameSizeBytes() const { return splitter_.frameSizeBytes(); }
  // Returns the received memory files that no message has claimed, in order of arrival.
  std::vector<FileDescriptor>& files() { return files_; }

  // Returns true between read() or resume() and endRead().
  bool isInRead() const { return inRead_; }
  std::size_t keptBytes() const { return splitter_.keptBytes(); }
  // Returns true inside a frame, kept or skipped.
  bool isInFrame() const { return splitter_.inFrame(); }
  bool isSkipping() const { return splitter_.isSkipping(); }
  // Returns true once the socket was read to its end, so nothing unread can be in it.
  bool hasReachedEnd() const { return reachedEnd_; }

 private:
  void takeFiles(msghdr& header, Outcome& outcome);

  FrameSplitter splitter_;
  std::vector<FileDescriptor> files_;
  std::span<std::byte> filled_;  // part of the context's buffer, until endRead()
  bool inRead_ = false;
  bool hasFound_ = false;  // a frame in this read
  bool confidential_ = false;
  bool reachedEnd_ = false;
};

}  // namespace keel::xpc
