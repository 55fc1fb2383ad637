// Memory that goes from one message to the next: what a message needs is the same as what the one before it needed, so
// in the steady state nothing is asked of the heap.
//
// Each thread keeps what it gave up last, up to a bound; beyond it, and at the thread's end, the heap has it back.
// Blocks may be taken on one thread and given on another. Under AddressSanitizer nothing is kept: it could not tell a
// block in use from one that was given up.
#pragma once

#include <array>
#include <cstddef>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace siplib {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kRecycles = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kRecycles = false;
#else
inline constexpr bool kRecycles = true;
#endif
#else
inline constexpr bool kRecycles = true;
#endif

/// Raw blocks of one size, `Most` of them kept per thread.
template <std::size_t Size, std::size_t Most>
class RecycledBlocks {
 public:
  /// Never null; throws bad_alloc.
  static void* take() {
    void* const block = takeKept();
    return block != nullptr ? block : ::operator new(Size);
  }
  /// Null when there is no memory.
  static void* take(const std::nothrow_t& nothrow) noexcept {
    void* const block = takeKept();
    return block != nullptr ? block : ::operator new(Size, nothrow);
  }
  static void give(void* block) noexcept {
    Kept& kept = mine();
    if (kRecycles && !ended_ && kept.count < Most) {
      kept.blocks[kept.count++] = block;
    } else {
      ::operator delete(block);
    }
  }

 private:
  struct Kept {
    std::array<void*, Most> blocks;
    std::size_t count = 0;
    ~Kept() {
      while (count > 0) ::operator delete(blocks[--count]);
      ended_ = true;
    }
  };
  static void* takeKept() noexcept {
    Kept& kept = mine();
    return kept.count > 0 ? kept.blocks[--kept.count] : nullptr;
  }
  static Kept& mine() noexcept {
    static thread_local Kept kept;
    return kept;
  }
  /// Objects of static storage may give theirs after that.
  static inline thread_local bool ended_ = false;
};

/// The base of a class whose objects come and go with every message: `class Derived final : public Recycled<Derived>`.
template <class Derived, std::size_t Most = 64>
class Recycled {
 public:
  static void* operator new(std::size_t) { return RecycledBlocks<sizeof(Derived), Most>::take(); }
  static void* operator new(std::size_t, const std::nothrow_t& nothrow) noexcept {
    return RecycledBlocks<sizeof(Derived), Most>::take(nothrow);
  }
  static void operator delete(void* block) noexcept { RecycledBlocks<sizeof(Derived), Most>::give(block); }
  static void operator delete(void* block, const std::nothrow_t&) noexcept { operator delete(block); }
};

/// A text for as long as one message is worked on: a std::string that begins empty with the room of an earlier one and
/// hands its own on at its end.
class Scratch : public std::string {
 public:
  Scratch() : std::string(take()) {}
  explicit Scratch(std::string_view text) : Scratch() { assign(text); }
  ~Scratch() { give(*this); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  using std::string::operator=;

 private:
  static std::string take();
  static void give(std::string& text) noexcept;
};

}  // namespace siplib
