#pragma once

#include <cstddef>
#include <cstdint>

#include "Drift/Format.h"

/// Access to memory shared with other processes: arrays of 8-byte words, acquire loads and release
/// stores, no fences.
namespace Drift {

using Format::Word;

#ifdef QUARNBASTIL_KILL_POINTS
/// Called after each store into shared memory in the kill tests' own build of these sources.
void killPoint() noexcept;
#else
inline void killPoint() noexcept {}
#endif

inline Word loadWord(const Word* word) noexcept { return __atomic_load_n(word, __ATOMIC_ACQUIRE); }

// NOLINTNEXTLINE(readability-non-const-parameter): the built-in function stores through it
inline void storeWord(Word* word, Word value) noexcept {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
  killPoint();
}

}  // namespace Drift
