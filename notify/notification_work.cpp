// SPDX-License-Identifier: Apache-2.0
#include "notify/notification_work.h"

#include "notify/dump_coordinator.h"
#include "notify/incremental_work_queue.h"
#include "notify/update_coalescer.h"
#include "runtime/dispatch/serial_queue.h"

namespace keel {

NotificationWork::NotificationWork(Executor& executor)
    : inputQueue_(SerialQueue::create("KLNNotificationInputQ", executor)),
      updateQueue_(SerialQueue::create("KLNNotificationUpdateQ", executor)),
      incremental_(std::make_shared<IncrementalWorkQueue>(inputQueue_)),
      dumps_(std::make_shared<DumpCoordinator>(incremental_)),
      coalescer_(std::make_shared<UpdateCoalescer>(inputQueue_)) {}

NotificationWork::~NotificationWork() = default;

}  // namespace keel
