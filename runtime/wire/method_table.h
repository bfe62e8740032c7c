// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>

// A protocol is an ordinary abstract class with its method table declared directly beneath it:
//
//   class Greeter {
//    public:
//     virtual ~Greeter() = default;
//     virtual void greet(String name, xpc::Reply<String, Error> reply) = 0;
//   };
//   using GreeterMethods = xpc::MethodTable<xpc::Method<"greet:withHandler:", &Greeter::greet>>;
//   GreeterMethods methodTableOf(const Greeter*);
//
// Dispatch on the serving side (interface.h) and calls on the other (remote_proxy.h) derive from
// it. The compiler checks the table: one ':' per parameter, unique selectors, members of one class.

namespace keel::xpc {

template <class... Results>
class Reply;

// A selector usable as a template argument.
template <std::size_t N>
struct SelectorText {
  char text[N];
  consteval SelectorText(const char (&literal)[N]) {
    for (std::size_t i = 0; i < N; ++i) text[i] = literal[i];
  }
  constexpr std::string_view view() const { return {text, N - 1}; }
};

template <class Member>
struct MemberTraits;
template <class Class, class... Parameters>
struct MemberTraits<void (Class::*)(Parameters...)> {
  using Protocol = Class;
  using Arguments = std::tuple<std::remove_cvref_t<Parameters>...>;
  static constexpr std::size_t kParameterCount = sizeof...(Parameters);
};

// Turns members into types: pointers to virtual functions have no portable comparison.
template <auto Member>
struct MemberTag {};

// Splits a parameter list into what travels with the request and the reply block at its end, if
// any.
template <class Tuple>
struct SplitParameters;
template <>
struct SplitParameters<std::tuple<>> {
  using Sent = std::tuple<>;
  using ReplyBlock = void;
};
template <class First, class... Rest>
struct SplitParameters<std::tuple<First, Rest...>> {
  using Tail = SplitParameters<std::tuple<Rest...>>;
  using Sent = decltype(std::tuple_cat(std::declval<std::tuple<First>>(),
                                       std::declval<typename Tail::Sent>()));
  using ReplyBlock = typename Tail::ReplyBlock;
};
template <class... Results>
struct SplitParameters<std::tuple<Reply<Results...>>> {
  using Sent = std::tuple<>;
  using ReplyBlock = Reply<Results...>;
};

// The cost of a request, which decides how it is scheduled.
enum class Weight : std::uint8_t {
  usual,
  // Keeps none of its arguments, so names may come from the name cache.
  brief,
  // Its work grows with everything the service holds: served one at a time per user, over all
  // connections.
  heavy,
  // May block for seconds: where requests have queues of their own, it runs on another executor,
  // where it holds up nobody else.
  slow,
  // Leaves something behind that is charged to the caller's user: refused while that user is over
  // quota.
  lasting,
};

template <SelectorText Text, auto Member, Weight Work = Weight::usual>
struct Method {
  using Traits = MemberTraits<decltype(Member)>;
  using Protocol = typename Traits::Protocol;
  using Sent = typename SplitParameters<typename Traits::Arguments>::Sent;
  using ReplyBlock = typename SplitParameters<typename Traits::Arguments>::ReplyBlock;

  static constexpr auto kMember = Member;
  static constexpr Weight kWeight = Work;
  static constexpr std::string_view kSelector = std::string_view(Text.text, sizeof(Text.text) - 1);
  static constexpr bool kHasReply = !std::is_void_v<ReplyBlock>;

  static consteval std::size_t colonCount() {
    std::size_t count = 0;
    for (char character : kSelector) count += character == ':' ? 1 : 0;
    return count;
  }
  static_assert(colonCount() == Traits::kParameterCount, "a selector has one ':' per parameter");
};

template <class First, class... Rest>
struct MethodTable {
  using Protocol = typename First::Protocol;
  static constexpr std::size_t kCount = 1 + sizeof...(Rest);
  static constexpr std::array<std::string_view, kCount> kSelectors = {First::kSelector,
                                                                      Rest::kSelector...};

  // Calls `visit.template operator()<Method>()` for each method, in the order of the table.
  template <class Visitor>
  static constexpr void forEach(Visitor&& visit) {
    visit.template operator()<First>();
    (visit.template operator()<Rest>(), ...);
  }

  // Returns the index of a member in the table.
  template <auto Member>
  static consteval std::size_t indexOf() {
    std::size_t found = kCount;
    std::size_t index = 0;
    forEach([&]<class Candidate>() {
      if constexpr (std::is_same_v<MemberTag<Candidate::kMember>, MemberTag<Member>>) found = index;
      ++index;
    });
    return found;
  }

  template <auto Member>
  using MethodOf = std::tuple_element_t<indexOf<Member>(), std::tuple<First, Rest...>>;

 private:
  static consteval bool selectorsAreUnique() {
    for (std::size_t i = 0; i < kCount; ++i) {
      for (std::size_t j = i + 1; j < kCount; ++j) {
        if (kSelectors[i] == kSelectors[j]) return false;
      }
    }
    return true;
  }
  static_assert(selectorsAreUnique(), "selectors of one protocol differ");
  static_assert((std::is_same_v<Protocol, typename Rest::Protocol> && ...),
                "all methods belong to one protocol");
};

// The method table of a protocol.
template <class Protocol>
using MethodsOf = decltype(methodTableOf(static_cast<const Protocol*>(nullptr)));

}  // namespace keel::xpc
