// SPDX-License-Identifier: Apache-2.0
#include "client/notify_operations.h"

#include <fmt/format.h>

#include <utility>

#include "client/client_core.h"
#include "client/diagnosis.h"
#include "client/outgoing_data.h"
#include "platform/product/product.h"

namespace keel::operations {

using protocols::NotifyProxy;

namespace {

constexpr std::string_view kAllItems = "_all";

// Base of the operations on a name.
template <class T>
class Named : public OperationOf<T> {
 public:
  Named(const char* verb, String name) : verb_(verb), name_(std::move(name)) {
    this->bytes = name_.view().size();
    this->refusal = checkText(name_, "the name");
  }
  std::string what() const override {
    return fmt::format("{} {}", verb_, diagnosis::shownName(name_));
  }

 protected:
  template <class Derived>
  std::shared_ptr<Derived> self(Derived*) {
    return std::static_pointer_cast<Derived>(this->shared_from_this());
  }

  const char* const verb_;
  const String name_;
};

// Base of the operations on a name that carry data.
class WithData : public Named<void> {
 public:
  WithData(const char* verb, String name, const Value& data) : Named(verb, std::move(name)) {
    if (refusal) return;
    auto encoded = encodeData(data, bytes);
    if (!encoded) {
      refusal = ClientError(encoded.error().kind(),
                            fmt::format("cannot {}: {}", what(), encoded.error().message()));
      return;
    }
    item_ = std::move(*encoded);
    bytes += item_.encoded().size();
  }

 protected:
  Dictionary item_;
};

class Publish final : public WithData {
 public:
  Publish(String name, const Value& data, std::uint64_t flags, std::int64_t value)
      : WithData("publish", std::move(name), data), flags_(flags), value_(value) {}

  void send(ClientCore& core) override {
    core.ask<&NotifyProxy::publishItem>(self(this), &answered, item_, name_, flags_, value_);
  }

 private:
  static void answered(ClientCore& core, Publish& it, bool inTime, const Error& error) {
    if (!inTime) {
      if (!error) core.records().revertPublication(it.name_);
      return;
    }
    if (error) return core.finish<void>(it, std::unexpected(core.answerError(it, error)));
    PublicationRecord record;
    record.name = it.name_;
    record.item = it.item_;
    record.flags = it.flags_;
    record.value = it.value_;
    core.records().published(std::move(record));
    core.finish<void>(it, {});
  }

  const std::uint64_t flags_;
  const std::int64_t value_;
};

class Update final : public WithData {
 public:
  Update(String name, const Value& data) : WithData("update", std::move(name), data) {}

  void send(ClientCore& core) override {
    core.ask<&NotifyProxy::updatePublishedItem>(self(this), &answered, item_, name_);
  }

 private:
  static void answered(ClientCore& core, Update& it, bool inTime, const Error& error) {
    // Records the data even after the timeout: the daemon has accepted it.
    if (!error) core.records().updated(it.name_, it.item_);
    if (!inTime) return;
    if (error) return core.finish<void>(it, std::unexpected(core.answerError(it, error)));
    core.finish<void>(it, {});
  }
};

class Remove final : public Named<void> {
 public:
  explicit Remove(String name) : Named("remove", std::move(name)) {}

  void send(ClientCore& core) override {
    core.ask<&NotifyProxy::removePublishedItemForName>(self(this), &answered, name_);
  }

 private:
  static void answered(ClientCore& core, Remove& it, bool inTime, const Error& error) {
    // A publication that the daemon no longer has must not be restored either.
    if (!error || error.code() == errNotFound) core.records().removed(it.name_);
    if (!inTime) return;
    if (error) return core.finish<void>(it, std::unexpected(core.answerError(it, error)));
    core.finish<void>(it, {});
  }
};

class Subscribe final : public Named<Subscription> {
 public:
  Subscribe(String name, EventCallback events)
      : Named("subscribe to", std::move(name)), events_(std::move(events)) {}

  void send(ClientCore& core) override {
    core.ask<&NotifyProxy::subscribeTo>(self(this), &answered, name_, std::uint64_t{0});
  }

 private:
  static void answered(ClientCore& core, Subscribe& it, bool inTime, const Dictionary&,
                       const Error& error) {
    if (!inTime) {
      if (!error) core.records().revertSubscription(it.name_);
      return;
    }
    if (error) return core.finish<Subscription>(it, std::unexpected(core.answerError(it, error)));
    const auto record =
        core.records().subscribed(it.name_, std::move(it.events_), core.weak_from_this());
    core.runCallback([&] { it.finish(Subscription(record)); });
    it.drop();
  }

  EventCallback events_;
};

class Dump final : public Named<std::vector<DumpEntry>> {
 public:
  Dump(String name, bool withData) : Named("dump", std::move(name)), withData_(withData) {}

  // keeld interprets that name as all items; a program may never have seen it.
  std::string what() const override {
    return name_.view() == kAllItems ? "dump all items" : Named::what();
  }
  void send(ClientCore& core) override {
    core.ask<&NotifyProxy::dumpNotification>(self(this), &answered, name_, withData_);
  }

 private:
  static void answered(ClientCore& core, Dump& it, bool inTime, const Array& entries,
                       const Error& error) {
    if (!inTime) return;
    if (error)
      return core.finish<std::vector<DumpEntry>>(it, std::unexpected(core.answerError(it, error)));
    core.finish(it, readDump(entries));
  }

  const bool withData_;
};

class AuthCheck final : public Named<bool> {
 public:
  AuthCheck(String user, std::int32_t auditSession)
      : Named("check user", std::move(user)), auditSession_(auditSession) {}

  void send(ClientCore& core) override {
    core.ask<&NotifyProxy::authCheckForUser>(self(this), &answered, name_, auditSession_);
  }

 private:
  static void answered(ClientCore& core, AuthCheck& it, bool inTime, bool authenticated,
                       const Error& error) {
    if (!inTime) return;
    if (error) return core.finish<bool>(it, std::unexpected(core.answerError(it, error)));
    core.finish<bool>(it, authenticated);
  }

  const std::int32_t auditSession_;
};

using Table = std::map<std::string, std::string>;

class ModuleTable final : public OperationOf<Table> {
 public:
  std::string what() const override { return "list the modules"; }
  void send(ClientCore& core) override {
    core.ask<&NotifyProxy::getModuleTableWithHandler>(
        std::static_pointer_cast<ModuleTable>(shared_from_this()), &answered);
  }

 private:
  static void answered(ClientCore& core, ModuleTable& it, bool inTime, const Dictionary& modules) {
    if (!inTime) return;
    Table table;
    const Value decoded = modules.value();
    if (const auto* map = decoded.as<Value::Map>()) {
      for (const Member& module : *map) {
        if (const auto* service = module.value.as<std::string>())
          table.emplace(module.key, *service);
      }
    }
    core.finish<Table>(it, std::move(table));
  }
};

class Publications final : public OperationOf<std::vector<PublicationState>> {
 public:
  std::string what() const override { return "list the publications"; }
  bool isLocal() const override { return true; }
  void send(ClientCore& core) override {
    const auto kept = shared_from_this();
    if (core.settle(*this))
      core.finish<std::vector<PublicationState>>(*this, core.records().publications());
  }
};

}  // namespace

std::shared_ptr<OperationOf<void>> publish(String name, const Value& data, std::uint64_t flags,
                                           std::int64_t value) {
  return std::make_shared<Publish>(std::move(name), data, flags, value);
}

std::shared_ptr<OperationOf<void>> update(String name, const Value& data) {
  return std::make_shared<Update>(std::move(name), data);
}

std::shared_ptr<OperationOf<void>> remove(String name) {
  return std::make_shared<Remove>(std::move(name));
}

std::shared_ptr<OperationOf<Subscription>> subscribe(String name, EventCallback callback) {
  return std::make_shared<Subscribe>(std::move(name), std::move(callback));
}

std::shared_ptr<OperationOf<std::vector<DumpEntry>>> dump(String name, bool withData) {
  return std::make_shared<Dump>(std::move(name), withData);
}

std::shared_ptr<OperationOf<std::vector<DumpEntry>>> dumpAll(bool withData) {
  return std::make_shared<Dump>(kAllItems, withData);
}

std::shared_ptr<OperationOf<bool>> authCheck(String user, std::int32_t auditSession) {
  return std::make_shared<AuthCheck>(std::move(user), auditSession);
}

std::shared_ptr<OperationOf<Table>> moduleTable() {
  return std::make_shared<ModuleTable>();
}

std::shared_ptr<OperationOf<std::vector<PublicationState>>> publications() {
  return std::make_shared<Publications>();
}

}  // namespace keel::operations
