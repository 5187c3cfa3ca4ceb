#pragma once

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Drift/DenseCollection.h"
#include "Drift/HashedCollection.h"

namespace Bench {

using Drift::Word;

/// Sizes of the largest table: 65,536 configuration records of 552 bytes (36 MiB), and a log of
/// 1,000,000 records of 548 bytes.
inline constexpr std::uint32_t kConfigRecord = 552;
inline constexpr std::uint32_t kLogRecord = 548;
inline constexpr Word kConfigRecords = 65'536;
inline constexpr Word kLogRecords = 1'000'000;

inline constexpr std::size_t kConfigWords = kConfigRecord / sizeof(Word);
inline constexpr std::size_t kLogWords = Drift::Format::paddedSize(kLogRecord) / sizeof(Word);

/// A directory in memory, removed with the object, but only in the process that created it.
class ScratchDirectory {
 public:
  ScratchDirectory() : path_("/dev/shm/bastil-bench.XXXXXX"), maker_(::getpid()) {
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
  }
  ~ScratchDirectory() {
    if (::getpid() == maker_) std::filesystem::remove_all(path_);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  pid_t maker_;
};

/// All keys in one random order, the same in all benchmarks.
inline const std::vector<Word>& shuffledKeys() {
  static const std::vector<Word> keys = [] {
    std::vector<Word> all(kConfigRecords);
    for (Word key = 0; key < kConfigRecords; ++key) all[key] = key;
    std::shuffle(all.begin(), all.end(), std::mt19937_64(1));
    return all;
  }();
  return keys;
}

/// Yields a new random key below `count` for each operation. Visiting keys in their order of
/// insertion would visit slots sequentially.
class RandomKeys {
 public:
  explicit RandomKeys(Word count = kConfigRecords) : count_(count) {}

  Word next() noexcept {
    // Marsaglia's xorshift64: a few instructions.
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return (state_ >> 20) % count_;
  }

 private:
  Word count_;
  Word state_ = 0x9e3779b97f4a7c15;
};

inline Drift::Geometry configGeometry(std::uint32_t record = kConfigRecord) {
  return {Drift::Format::Layout::hashed, 4, record, kConfigRecords, "Bench", "config"};
}
inline Drift::Geometry logGeometry(std::uint32_t record = kLogRecord) {
  return {Drift::Format::Layout::dense, 8, record, kLogRecords, "Bench", "log"};
}

inline void fillConfig(Drift::HashedWriter& writer) {
  std::vector<Word> record(kConfigWords, 7);
  for (const Word key : shuffledKeys()) {
    record[0] = key;
    writer.set(record);
  }
}

/// A second process that repeats a piece of work while it is switched on.
class Companion {
 public:
  /// `prepare` runs in the new process and returns the piece of work.
  explicit Companion(const std::function<std::function<void()>()>& prepare) {
    void* const shared =
        ::mmap(nullptr, sizeof(Switch), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    switch_ = new (shared) Switch;
    process_ = ::fork();
    if (process_ != 0) {
      while (!switch_->ready) ::usleep(1000);
      return;
    }
    const std::function<void()> work = prepare();
    switch_->ready = true;
    for (;;) {
      while (!switch_->on) ::usleep(1000);
      while (switch_->on) {
        for (int i = 0; i < 100; ++i) work();
        switch_->rounds += 100;
      }
    }
  }
  ~Companion() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    ::munmap(switch_, sizeof(Switch));
  }
  Companion(const Companion&) = delete;
  Companion& operator=(const Companion&) = delete;

  void on(bool running) { switch_->on = running; }
  /// Number of times the work has been done.
  std::uint64_t rounds() const { return switch_->rounds; }

 private:
  struct Switch {
    std::atomic<bool> ready{false};
    std::atomic<bool> on{false};
    std::atomic<std::uint64_t> rounds{0};
  };
  Switch* switch_;
  pid_t process_;
};

}  // namespace Bench
