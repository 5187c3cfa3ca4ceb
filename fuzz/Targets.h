#pragma once

#include <cstddef>
#include <cstdint>

/// Entry points of the fuzzers, which the test suite also runs on the stored corpus. A fault
/// aborts.
namespace Drift::Fuzz {

/// Interprets the bytes as changes to a collection's file (or as a whole file), then opens the file
/// as a reader and as a writer taking over.
int file(const std::uint8_t* data, std::size_t size);
/// Interpret the bytes as operations on a collection, and compare it with a `std::map`.
int hashed(const std::uint8_t* data, std::size_t size);
int dense(const std::uint8_t* data, std::size_t size);

}  // namespace Drift::Fuzz
