// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace keel {

// A piece of work: a movable callable without arguments or result. Callables of up to kInlineBytes
// are stored inline, larger ones on the heap, so queueing an ordinary request allocates nothing.
class Block {
 public:
  static constexpr std::size_t kInlineBytes = 112;

  Block() = default;

  template <class Callable>
    requires(!std::is_same_v<std::decay_t<Callable>, Block> &&
             std::is_invocable_v<std::decay_t<Callable>&>)
  Block(Callable&& callable) {
    using Held = std::decay_t<Callable>;
    if constexpr (fitsInline<Held>()) {
      ::new (static_cast<void*>(storage_)) Held(std::forward<Callable>(callable));
      operations_ = &kOperations<Held>;
    } else {
      using Boxed = std::unique_ptr<Held>;
      auto boxed = [held = Boxed(new Held(std::forward<Callable>(callable)))] { (*held)(); };
      ::new (static_cast<void*>(storage_)) decltype(boxed)(std::move(boxed));
      operations_ = &kOperations<decltype(boxed)>;
    }
  }

  Block(Block&& other) noexcept { take(other); }
  Block& operator=(Block&& other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { reset(); }

  explicit operator bool() const { return operations_ != nullptr; }
  // Must not be empty.
  void operator()() { operations_->invoke(storage_); }

 private:
  struct Operations {
    void (*invoke)(void* held);
    void (*moveTo)(void* held, void* destination) noexcept;  // destroys the source
    void (*destroy)(void* held) noexcept;
  };

  template <class Held>
  static constexpr bool fitsInline() {
    return sizeof(Held) <= kInlineBytes && alignof(Held) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<Held>;
  }

  template <class Held>
  static constexpr Operations kOperations = {
      [](void* held) { (*static_cast<Held*>(held))(); },
      [](void* held, void* destination) noexcept {
        ::new (destination) Held(std::move(*static_cast<Held*>(held)));
        static_cast<Held*>(held)->~Held();
      },
      [](void* held) noexcept { static_cast<Held*>(held)->~Held(); },
  };

  void take(Block& other) noexcept {
    if (other.operations_ == nullptr) return;
    other.operations_->moveTo(other.storage_, storage_);
    operations_ = std::exchange(other.operations_, nullptr);
  }
  void reset() noexcept {
    if (operations_ != nullptr) std::exchange(operations_, nullptr)->destroy(storage_);
  }

  alignas(std::max_align_t) std::byte storage_[kInlineBytes];
  const Operations* operations_ = nullptr;
};

}  // namespace keel
