#pragma once

#include <atomic>
#include <cstddef>

namespace Blipline {

/// A ring file mapped for writing. Stores into it never end the process: when somebody truncates
/// the file, and in a child process after a fork, memory of the process's own takes the place of
/// the file's, and what is stored there is seen by nobody.
///
/// For the first of these the process gets a handler of SIGBUS with its first mapping. A signal
/// that means something else goes to the handler that was there before, or ends the process as
/// ever. A program that sets a handler of its own later calls the former one for what it does not
/// know.
///
/// One thread at a time, but for `lost`.
class RingMapping {
 public:
  RingMapping() noexcept = default;
  RingMapping(const RingMapping&) = delete;
  RingMapping& operator=(const RingMapping&) = delete;
  ~RingMapping();

  /// Maps the file's first bytes. Null and errno when the system refuses.
  void* map(int fd, std::size_t bytes);

  /// The file is not written any more.
  bool lost() const noexcept;

 private:
  struct Place;
  struct Places;

  /// What the signal handler knows of this mapping; null before `map`.
  Place* place_ = nullptr;
};

}  // namespace Blipline
