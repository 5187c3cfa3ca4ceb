#pragma once

#include <cstdint>
#include <typeinfo>

#include "Fenrik/Export.h"

namespace OvSlab {

/// How long the object lives, as its class knows it.
enum class SlabAllocationPattern : std::uint8_t {
  /// Tables, interfaces, chunks: made seldom, kept long.
  longLived = 0,
  /// Handles, wrappers, resolver entries: made and gone with every write.
  perWrite = 1,
};

QUARNBASTIL_EXPORT void* slabAlloc(unsigned size);
QUARNBASTIL_EXPORT void* slabAlloc(unsigned size, SlabAllocationPattern pattern);
QUARNBASTIL_EXPORT void* slabAllocOrStdMalloc(unsigned size, SlabAllocationPattern pattern);
QUARNBASTIL_EXPORT void slabFree(void* storage, const std::type_info& type) noexcept;
QUARNBASTIL_EXPORT void slabFreeOrStdFree(void* storage, const std::type_info& type) noexcept;
QUARNBASTIL_EXPORT void slabFreeOrStdFree(void* storage) noexcept;

}  // namespace OvSlab
