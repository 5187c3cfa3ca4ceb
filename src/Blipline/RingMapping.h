#pragma once

#include <atomic>
#include <cstddef>

namespace Blipline {

/// A ring file mapped for writing. Stores to it never fail: if the file is truncated, and in a
/// child process after a fork, private memory replaces the mapping, and stores have no visible
/// effect.
///
/// To handle truncation, the first mapping installs a SIGBUS handler. Signals with other causes are
/// passed to the previous handler, or terminate the process as usual. A program that installs its
/// own handler later must call the previous one for causes that it does not know.
///
/// Threads: one at a time, except for `lost`.
class RingMapping {
 public:
  RingMapping() noexcept = default;
  RingMapping(const RingMapping&) = delete;
  RingMapping& operator=(const RingMapping&) = delete;
  ~RingMapping();

  /// Maps the first `bytes` bytes of the file. Null, with errno set, on failure.
  void* map(int fd, std::size_t bytes);

  /// Whether the mapping has been replaced and the file is no longer written.
  bool lost() const noexcept;

 private:
  struct Place;
  struct Places;

  /// This mapping's entry for the signal handler; null before `map`.
  Place* place_ = nullptr;
};

}  // namespace Blipline
