#include "Drift/ProcessMark.h"

#include <sys/mman.h>

namespace Drift::Impl {

namespace {

Format::Word* makeWord() noexcept {
  // Fallback if the kernel cannot clear memory on fork: a child then has its parent's mark, and its
  // writes are not refused.
  static Format::Word plain = 0;
  void* const page = ::mmap(nullptr, Format::kPageSize, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return &plain;
  ::madvise(page, Format::kPageSize, MADV_WIPEONFORK);
  return static_cast<Format::Word*>(page);
}

}  // namespace

Format::Word* const processMarkWord = makeWord();

Format::Word newProcessMark() noexcept {
  static Format::Word last = 0;
  return *processMarkWord = ++last;
}

}  // namespace Drift::Impl
