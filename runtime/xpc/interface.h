// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <tuple>
#include <vector>

#include "runtime/wire/argument.h"
#include "runtime/wire/method_table.h"
#include "runtime/xpc/reply.h"

namespace keel::xpc {

// A protocol's dispatch table: its selectors in order, and for each a function that decodes the
// arguments of one message and calls the method on an object.
class Interface {
 public:
  // The context of one call.
  struct Call {
    std::shared_ptr<ReplyRoute> route;  // null for a one-way message
    std::uint64_t requestId;
  };
  // Calls the method on `object`, which is of the protocol's class. Returns false, having called
  // nothing, if the arguments do not fit, or if a method with a reply arrives one-way or the
  // reverse.
  using Dispatch = bool (*)(void* object, ArgumentReader& arguments, std::uint64_t argumentCount,
                            Call& call);

  // Returns the interface of a protocol, a singleton.
  template <class Protocol>
  static const Interface& interfaceWithProtocol() {
    static const Interface& interface = *new Interface(make<Protocol>());
    return interface;
  }

  std::span<const std::string_view> selectors() const { return selectors_; }
  // Returns null for an index beyond the list.
  Dispatch dispatchAt(std::uint64_t place) const {
    return place < dispatches_.size() ? dispatches_[place] : nullptr;
  }
  // Returns `usual` for an index beyond the list.
  Weight weightAt(std::uint64_t place) const {
    return place < weights_.size() ? weights_[place] : Weight::usual;
  }

 private:
  Interface() = default;

  template <class Protocol>
  static Interface make() {
    Interface interface;
    interface.selectors_ = MethodsOf<Protocol>::kSelectors;
    MethodsOf<Protocol>::forEach([&]<class M>() {
      interface.dispatches_.push_back(&dispatch<M>);
      interface.weights_.push_back(M::kWeight);
    });
    return interface;
  }

  template <class M>
  static bool dispatch(void* object, ArgumentReader& reader, std::uint64_t argumentCount,
                       Call& call) {
    typename M::Sent arguments;
    if (argumentCount != std::tuple_size_v<typename M::Sent> ||
        (call.route != nullptr) != M::kHasReply)
      return false;
    const bool read = std::apply(
        [&](auto&... each) {
          return (Argument<std::decay_t<decltype(each)>>::read(reader, each) && ...);
        },
        arguments);
    if (!read || !reader.cursor.atEnd()) return false;
    auto& target = *static_cast<typename M::Protocol*>(object);
    std::apply(
        [&](auto&... each) {
          if constexpr (M::kHasReply) {
            (target.*M::kMember)(std::move(each)...,
                                 typename M::ReplyBlock(std::move(call.route), call.requestId));
          } else {
            (target.*M::kMember)(std::move(each)...);
          }
        },
        arguments);
    return true;
  }

  std::span<const std::string_view> selectors_;
  std::vector<Dispatch> dispatches_;
  std::vector<Weight> weights_;
};

}  // namespace keel::xpc
