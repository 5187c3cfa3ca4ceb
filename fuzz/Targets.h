#pragma once

#include <cstddef>
#include <cstdint>

/// What the fuzzers run on their bytes; the test suite runs the same on the kept corpus. Whatever
/// must not be ends the process.
namespace Drift::Fuzz {

/// The bytes are changes to the file of a collection (or a whole file), which is then opened as a
/// reader and as the writer that takes over.
int file(const std::uint8_t* data, std::size_t size);
/// The bytes are operations on a collection and on a `std::map`.
int hashed(const std::uint8_t* data, std::size_t size);
int dense(const std::uint8_t* data, std::size_t size);

}  // namespace Drift::Fuzz
