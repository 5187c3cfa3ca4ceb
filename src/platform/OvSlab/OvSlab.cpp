#include "OvSlab/OvSlab.h"

#include <cstdlib>

namespace OvSlab {

void* slabAlloc(unsigned size) { return slabAlloc(size, SlabAllocationPattern::longLived); }
void* slabAlloc(unsigned size, SlabAllocationPattern) { return std::malloc(size); }
void* slabAllocOrStdMalloc(unsigned size, SlabAllocationPattern) { return std::malloc(size); }
void slabFree(void* storage, const std::type_info&) noexcept { std::free(storage); }
void slabFreeOrStdFree(void* storage, const std::type_info&) noexcept { std::free(storage); }
void slabFreeOrStdFree(void* storage) noexcept { std::free(storage); }

}  // namespace OvSlab
