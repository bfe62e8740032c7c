// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <vector>

#include "client/client.h"
#include "client/operation.h"

// The requests of KLNClient as operations. Data and names are checked on creation, on the caller's
// thread.

namespace keel::operations {

std::shared_ptr<OperationOf<void>> publish(String name, const Value& data, std::uint64_t flags,
                                           std::int64_t value);
std::shared_ptr<OperationOf<void>> update(String name, const Value& data);
std::shared_ptr<OperationOf<void>> remove(String name);
std::shared_ptr<OperationOf<Subscription>> subscribe(String name, EventCallback callback);
std::shared_ptr<OperationOf<std::vector<DumpEntry>>> dump(String name, bool withData);
std::shared_ptr<OperationOf<std::vector<DumpEntry>>> dumpAll(bool withData);
std::shared_ptr<OperationOf<bool>> authCheck(String user, std::int32_t auditSession);
std::shared_ptr<OperationOf<std::map<std::string, std::string>>> moduleTable();
std::shared_ptr<OperationOf<std::vector<PublicationState>>> publications();

}  // namespace keel::operations
