// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace keel {

// Admits a bounded ticket of threads at a time, in order of arrival. The queue itself is unbounded:
// each waiting thread is one entry. From any thread.
class AdmissionQueue {
 public:
  class Admission;

  explicit AdmissionQueue(std::size_t limit) : limit_(limit) {}
  AdmissionQueue(const AdmissionQueue&) = delete;
  AdmissionQueue& operator=(const AdmissionQueue&) = delete;

  // Blocks until admitted. The admission lasts until the returned token is destroyed.
  [[nodiscard]] Admission admit();

  std::size_t waitingCount() const;

 private:
  const std::size_t limit_;
  mutable std::mutex mutex_;
  std::condition_variable released_;
  // Tickets are issued in order. The next one to issue, the next one to admit, and the count of
  // those admitted. Under mutex_.
  std::uint64_t nextTicket_ = 0;
  std::uint64_t nextToAdmit_ = 0;
  std::size_t admittedCount_ = 0;
};

class AdmissionQueue::Admission {
 public:
  explicit Admission(AdmissionQueue& queue) : queue_(&queue) {}
  Admission(Admission&& other) noexcept;
  Admission& operator=(Admission&&) = delete;
  ~Admission();

 private:
  AdmissionQueue* queue_;
};

}  // namespace keel
