#include "fuzz/Targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return Drift::Fuzz::BASTIL_FUZZ_TARGET(data, size);
}
