// The library's counting allocator: every object the library makes with
// make_shared goes through it, so live allocations can be counted (tests use
// this to show nothing leaks) and handed to the MemTrack hooks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <typeinfo>
#include <utility>

namespace Tamlo {

// Hooks called on every tracked allocation. They do nothing in this library
// and must stay cheap (inline, empty, noexcept: they compile to nothing); a
// heap checker may be built on them.
struct MemTrack {
  static void alloc(void* /*tracker*/, std::type_info const* /*type*/, size_t /*size*/,
                    size_t /*count*/) noexcept {}
  static void alloc(void* /*tracker*/, size_t /*size*/) noexcept {}
  static void dealloc(void* /*tracker*/, size_t /*size*/) noexcept {}
  static void trackerIs(void* /*tracker*/) noexcept {}
};

// Process-wide totals of what went through Allocator.
struct AllocatorStats {
  static uint64_t liveBytes() { return liveBytes_.load(std::memory_order_relaxed); }
  static uint64_t liveAllocations() { return liveAllocations_.load(std::memory_order_relaxed); }
  static uint64_t totalAllocations() { return totalAllocations_.load(std::memory_order_relaxed); }

  static void allocated(size_t bytes) {
    liveBytes_.fetch_add(bytes, std::memory_order_relaxed);
    liveAllocations_.fetch_add(1, std::memory_order_relaxed);
    totalAllocations_.fetch_add(1, std::memory_order_relaxed);
  }
  static void released(size_t bytes) {
    liveBytes_.fetch_sub(bytes, std::memory_order_relaxed);
    liveAllocations_.fetch_sub(1, std::memory_order_relaxed);
  }

 private:
  static std::atomic<uint64_t> liveBytes_;
  static std::atomic<uint64_t> liveAllocations_;
  static std::atomic<uint64_t> totalAllocations_;
};

template <typename T>
class Allocator {
 public:
  using value_type = T;

  Allocator() noexcept = default;
  template <typename U>
  Allocator(Allocator<U> const&) noexcept {}

  T* allocate(size_t count) {
    if (count > SIZE_MAX / sizeof(T))
      throw std::bad_array_new_length();
    size_t const bytes = count * sizeof(T);
    T* const memory = static_cast<T*>(::operator new(bytes, std::align_val_t(alignof(T))));
    MemTrack::alloc(nullptr, &typeid(T), sizeof(T), count);
    AllocatorStats::allocated(bytes);
    return memory;
  }

  void deallocate(T* memory, size_t count) noexcept {
    size_t const bytes = count * sizeof(T);
    MemTrack::dealloc(nullptr, bytes);
    AllocatorStats::released(bytes);
    ::operator delete(memory, std::align_val_t(alignof(T)));
  }

  template <typename U>
  bool operator==(Allocator<U> const&) const noexcept {
    return true;
  }
};

// std::make_shared through the library's allocator.
template <typename T, typename... Args>
std::shared_ptr<T> makeShared(Args&&... args) {
  return std::allocate_shared<T>(Allocator<T>(), std::forward<Args>(args)...);
}

}  // namespace Tamlo
