#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Blipline/RingReader.h"
#include "Blipline/RingTrace.h"
#include "Support/Process.h"

/// A directory of its own for ring files, and no ring trace in the process afterwards.
struct RingFixture : testing::Test {
  ~RingFixture() override { Blipline::defaultBliplineHandle = nullptr; }

  Blipline::TraceHandle::Options options(bool multiThreaded,
                                         std::size_t ringBytes = Blipline::kRingBytesMin) const {
    return {directory, "t", ringBytes, multiThreaded};
  }
  std::string path(unsigned index = 0) const {
    return directory + "/t-" + std::to_string(index) + ".blip";
  }

  const Support::TempDir dir;
  const std::string directory = dir.path();
};

/// Records a number that proves itself, in records whose lengths make every lap lie differently.
inline void provedRecord(std::uint64_t number) {
  if (number % 3 == 0)
    BLIPLINE_TRACE("Proved", "{} {} {}", number, ~number, static_cast<std::uint16_t>(number));
  else if (number % 41 == 1)
    BLIPLINE_TRACE("Proved", "{} {} {} {} {}", number, ~number, number, number, number);
  else
    BLIPLINE_TRACE("Proved", "{} {}", number, ~number);
}

/// The numbers of a file's records, which must prove themselves and follow each other.
inline std::vector<std::uint64_t> provedNumbers(const Blipline::RingFile& file) {
  std::vector<std::uint64_t> numbers;
  for (const std::string& problem : file.problems()) ADD_FAILURE() << problem;
  for (const auto& record : file.records()) {
    std::uint64_t pair[2] = {0, 0};
    EXPECT_GE(record.numbers.size(), sizeof pair);
    if (record.numbers.size() < sizeof pair) return numbers;
    std::memcpy(pair, record.numbers.data(), sizeof pair);
    EXPECT_EQ(pair[0], ~pair[1]);
    if (!numbers.empty()) {
      EXPECT_EQ(pair[0], numbers.back() + 1);
    }
    EXPECT_TRUE(file.descriptions().contains(record.msgId));
    numbers.push_back(pair[0]);
  }
  return numbers;
}
