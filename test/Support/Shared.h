#pragma once

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace Support {

/// A value that processes share with the one that forked them, whatever becomes of them.
template <class Value>
class Shared {
 public:
  Shared() {
    void* const memory =
        ::mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    value_ = new (memory) Value();
  }
  ~Shared() { ::munmap(value_, sizeof(Value)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  Value& operator*() const { return *value_; }
  Value* operator->() const { return value_; }

 private:
  Value* value_;
};

}  // namespace Support
