#pragma once

#include <cstddef>

// Under the address sanitizer, free objects are poisoned, so that their use is reported as for the
// heap, and slabs are registered with its leak check as memory that may contain pointers.
#if defined(__SANITIZE_ADDRESS__)
#define OVSLAB_POISON 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OVSLAB_POISON 1
#endif
#endif

#if defined(OVSLAB_POISON)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace OvSlab::Impl {

#if defined(OVSLAB_POISON)
inline constexpr bool kPoison = true;
inline void poison(const void* storage, std::size_t bytes) noexcept {
  __asan_poison_memory_region(storage, bytes);
}
inline void unpoison(const void* storage, std::size_t bytes) noexcept {
  __asan_unpoison_memory_region(storage, bytes);
}
inline void leakRootAdd(const void* storage, std::size_t bytes) noexcept {
  __lsan_register_root_region(storage, bytes);
}
inline void leakRootRemove(const void* storage, std::size_t bytes) noexcept {
  __lsan_unregister_root_region(storage, bytes);
}
#else
inline constexpr bool kPoison = false;
inline void poison(const void*, std::size_t) noexcept {}
inline void unpoison(const void*, std::size_t) noexcept {}
inline void leakRootAdd(const void*, std::size_t) noexcept {}
inline void leakRootRemove(const void*, std::size_t) noexcept {}
#endif

}  // namespace OvSlab::Impl
