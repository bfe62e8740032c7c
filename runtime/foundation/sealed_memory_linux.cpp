// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/foundation/sealed_memory.h"

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U  // Linux 6.3
#endif

namespace keel {

namespace {

// The seals that a reader relies on. F_SEAL_FUTURE_WRITE would not do: mappings made before it can
// still be written through.
constexpr int kNeededSeals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK;

std::unexpected<std::error_code> failure(int number) {
  return std::unexpected(std::error_code(number, std::system_category()));
}

int createMemoryFile() {
  constexpr const char* kDisplayName = "keel-value";
  const int file = ::memfd_create(kDisplayName, MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_NOEXEC_SEAL);
  // Older kernels answer the last flag with EINVAL.
  if (file >= 0 || errno != EINVAL) return file;
  return ::memfd_create(kDisplayName, MFD_CLOEXEC | MFD_ALLOW_SEALING);
}

bool writeAll(int file, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

bool sealFile(int file) {
  return ::fcntl(file, F_ADD_SEALS, kNeededSeals | F_SEAL_SEAL) == 0;
}

}  // namespace

std::expected<FileDescriptor, std::error_code> sealedMemoryOf(std::span<const std::byte> bytes) {
  FileDescriptor file(createMemoryFile());
  if (!file || !writeAll(file.get(), bytes) || !sealFile(file.get())) return failure(errno);
  return file;
}

std::expected<SealedMemoryWriter, std::error_code> SealedMemoryWriter::create() {
  FileDescriptor file(createMemoryFile());
  if (!file) return failure(errno);
  return SealedMemoryWriter(std::move(file));
}

std::expected<void, std::error_code> SealedMemoryWriter::append(std::span<const std::byte> bytes) {
  if (!writeAll(file_.get(), bytes)) return failure(errno);
  sizeBytes_ += bytes.size();
  return {};
}

std::expected<BufferRef, std::error_code> SealedMemoryWriter::seal() && {
  if (!sealFile(file_.get())) return failure(errno);
  return openSealedMemory(std::move(file_), sizeBytes_);
}

std::expected<BufferRef, std::error_code> openSealedMemory(FileDescriptor file,
                                                           std::size_t sizeBytes,
                                                           MemoryAccount& account) {
  const int seals = ::fcntl(file.get(), F_GET_SEALS);
  if (seals < 0) return failure(errno);
  if ((seals & kNeededSeals) != kNeededSeals) return failure(EPERM);

  // Memory files on huge pages can be sealed too, but map and unmap in other sizes than ours.
  struct statfs fileSystem;
  if (::fstatfs(file.get(), &fileSystem) != 0) return failure(errno);
  if (fileSystem.f_type != TMPFS_MAGIC) return failure(EPERM);

  struct stat status;
  if (::fstat(file.get(), &status) != 0) return failure(errno);
  if (sizeBytes == 0 || !std::in_range<std::size_t>(status.st_size)) return failure(EINVAL);
  if (static_cast<std::size_t>(status.st_size) != sizeBytes) return failure(EINVAL);

  void* mapping = ::mmap(nullptr, sizeBytes, PROT_READ, MAP_SHARED, file.get(), 0);
  if (mapping == MAP_FAILED) return failure(errno);
  return Buffer::adoptMapping(static_cast<const std::byte*>(mapping), sizeBytes, std::move(file),
                              account);
}

}  // namespace keel
