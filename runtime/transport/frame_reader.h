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

// The way into a stream: one recvmsg(2) at a time into the buffer of the context, where the frames
// are found and handed out as they lie. Only a frame that came in part is copied, so an idle stream
// owns no buffer. Lives on the reactor's thread.
//
//   const auto outcome = reader.read(socket);
//   while (reader.next() == FrameSplitter::Found::frame) use(reader.frame(), reader.files());
//   reader.endRead();
class FrameReader {
 public:
  struct Outcome {
    enum class Kind : std::uint8_t {
      bytes,
      nothing,  // the socket has nothing for now
      end,      // the peer closed it in good order
      failed,   // with errno `problem`
      offence,  // the peer sent descriptors that it may not; `offence` is what it is told
    };
    Kind kind = Kind::bytes;
    int problem = 0;
    std::string_view offence{};
    std::vector<FileDescriptor> foreign{};  // to be closed where that may take long
  };

  // Frames over `frameLimitBytes` are skipped.
  FrameReader(TransportContext& context, std::size_t frameLimitBytes);
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  void setFrameLimit(std::size_t limitBytes) { splitter_.setLimit(limitBytes); }
  // What is read is wiped when it is dropped.
  void setConfidential();

  Outcome read(int socket);
  // Takes up what was kept, without reading.
  void resume();
  // Keeps what is left of the last read; the buffer may be used by others from here on. Idempotent.
  void endRead();

  FrameSplitter::Found next() { return splitter_.next(); }
  std::span<const std::byte> frame() const { return splitter_.frame(); }
  std::size_t frameSizeBytes() const { return splitter_.frameSizeBytes(); }
  // Received memory files that no message has claimed, in the order in which they came.
  std::vector<FileDescriptor>& files() { return files_; }

  std::size_t keptBytes() const { return splitter_.keptBytes(); }
  // In the middle of a frame, kept or skipped.
  bool isInFrame() const { return splitter_.inFrame(); }
  // The socket was read to its end, so nothing can lie in it.
  bool hasReachedEnd() const { return reachedEnd_; }

 private:
  void takeFiles(msghdr& header, Outcome& outcome);

  TransportContext& context_;
  FrameSplitter splitter_;
  std::vector<FileDescriptor> files_;
  std::span<std::byte> filled_;  // of the context's buffer, until endRead()
  bool inRead_ = false;
  bool confidential_ = false;
  bool reachedEnd_ = false;
};

}  // namespace keel::xpc
