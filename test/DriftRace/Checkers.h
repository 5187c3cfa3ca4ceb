#pragma once

#include <atomic>
#include <random>

#include "DriftKill/Collections.h"

/// A writer at full speed and readers that notice whatever they must not see. The writer's rules
/// are what the readers hold it to: generations only rise; of a hashed collection the lasting keys
/// are never removed; of a dense one every fourth version is there until the low end passes it.
namespace DriftTest {

inline constexpr Word kLasting = 40;
/// Of so many keys a few are there at a time: each comes to another place in the index.
inline constexpr Word kKeys = 1024;
inline constexpr std::size_t kLive = 62;
/// Few slots, so that readers meet the writer often: 64 in the ring of this capacity.
inline constexpr Word kCapacity = 62;
inline constexpr Word kWindow = 40;
inline constexpr bool lastsInLog(Word version) { return version % 4 == 0; }

using Random = std::minstd_rand;

class HashedLoad {
 public:
  HashedLoad(Drift::DriftFile& file, Word lasting)
      : writer_(file), record_(writer_.view().recordWords()), lasting_(lasting) {
    for (Word key = 0; key < lasting_; ++key) put(key);
  }
  void put(Word key) {
    fillRecord(record_, writer_.view().keyWords(), key, ++generation_);
    writer_.set(record_);
  }
  void step(Random& random) {
    const unsigned dice = random() % 1024;
    if (dice == 0 && lasting_ == 0) {
      writer_.removeAll();
      passing_.clear();
    } else if (dice < 200 && lasting_ != 0) {
      put(random() % lasting_);
    } else if (dice < 600 && !passing_.empty()) {
      std::swap(passing_[random() % passing_.size()], passing_.back());
      remove(passing_.back());
      passing_.pop_back();
    } else if (lasting_ + passing_.size() < kLive) {
      passing_.push_back(lasting_ + random() % (kKeys - lasting_));
      put(passing_.back());
    } else {
      put(passing_[random() % passing_.size()]);
    }
  }
  void remove(Word key) {
    const auto words = keyOf(key);
    (void)writer_.remove(Drift::KeyWords(words).first(writer_.view().keyWords()));
  }
  Drift::HashedWriter& writer() { return writer_; }

 private:
  Drift::HashedWriter writer_;
  std::vector<Word> record_;
  Word lasting_;
  std::vector<Word> passing_;  ///< keys that come and go
  Word generation_ = 0;
};

class DenseLoad {
 public:
  explicit DenseLoad(Drift::DriftFile& file)
      : writer_(file), record_(writer_.view().recordWords()) {
    for (Word version = 1; version <= kWindow / 2; ++version) put(version);
  }
  void put(Word version) {
    fillRecord(record_, 1, version, ++generation_);
    writer_.set(record_);
  }
  void step(Random& random) {
    const auto [first, next] = writer_.view().window();
    const Word within = first + random() % (next - first + 1);
    const unsigned dice = random() % 64;
    if (next - first > kWindow || (dice < 30 && next - first > kWindow / 2)) {
      (void)writer_.remove(first);
    } else if (dice < 36 && within < next) {
      put(within);
    } else if (dice < 40 && within < next && !lastsInLog(within)) {
      (void)writer_.remove(within);
    } else if (dice == 40 && !lastsInLog(next)) {
      put(next + 1);
    } else {
      put(next);
    }
  }
  Drift::DenseWriter& writer() { return writer_; }

 private:
  Drift::DenseWriter writer_;
  std::vector<Word> record_;
  Word generation_ = 0;
};

/// What the readers of either kind count.
struct Findings {
  Word reads = 0;
  Word changes = 0;  ///< records that had changed since this reader's last look
};

class HashedChecker {
 public:
  HashedChecker(const Drift::DriftFile& file, Word lasting)
      : view_(file), record_(view_.recordWords()), lasting_(lasting) {}

  void find(Word key) {
    const auto words = keyOf(key);
    ++findings.reads;
    if (view_.find(Drift::KeyWords(words).first(view_.keyWords()), record_)) return note(key);
    if (key < lasting_) fault("key {} was always there and is not found", key);
    // Who comes after an absence is newer.
    if (latest_[key] != 0 && !absent_[key]) ++latest_[key];
    absent_[key] = true;
  }

  void walk() {
    bool seen[kKeys] = {};
    Drift::WalkPosition position;
    while (view_.next(position, Drift::KeyWords(record_).first(view_.keyWords()), record_)) {
      ++findings.reads;
      const Word key = record_[0];
      if (key >= kKeys) fault("the walk gives a key that never was: {}", key);
      if (std::exchange(seen[key], true)) fault("the walk visits key {} twice", key);
      note(key);
    }
    for (Word key = 0; key < lasting_; ++key) {
      if (!seen[key]) fault("key {} was always there and the walk passes over it", key);
    }
    if (view_.size() > kLive) fault("size {}", view_.size());
  }

  void step(Random& random) {
    for (int i = 0; i < 32; ++i) find(random() % kKeys);
    for (int i = 0; i < 64; ++i) find(random() % kLasting);
    walk();
  }

  Findings findings;

 private:
  void note(Word key) {
    const Word generation = generationOf(record_, view_.keyWords(), key);
    if (generation < latest_[key]) {
      fault("key {} went back from generation {} to {}", key, latest_[key], generation);
    }
    if (generation != latest_[key]) ++findings.changes;
    latest_[key] = generation;
    absent_[key] = false;
  }

  Drift::HashedView view_;
  std::vector<Word> record_;
  Word lasting_;
  Word latest_[kKeys] = {};
  bool absent_[kKeys] = {};
};

class DenseChecker {
 public:
  explicit DenseChecker(const Drift::DriftFile& file) : view_(file), record_(view_.recordWords()) {}

  void find(Word version) {
    ++findings.reads;
    if (view_.find(version, record_) == Drift::DenseRead::found) {
      note(version);
    } else if (lastsInLog(version)) {
      mustBeOutside(version);
    }
  }

  /// Goes on to the next record behind the last one that was followed.
  bool follow() {
    Word version = followed_;
    ++findings.reads;
    if (!view_.findFrom(version, record_)) return false;
    if (version < followed_) fault("asked from {} on, got {}", followed_, version);
    note(version);
    for (Word passed = followed_; passed < version; ++passed) {
      if (lastsInLog(passed) && view_.window().first <= passed) {
        fault("from {} on to {}: version {} is passed over", followed_, version, passed);
      }
    }
    followed_ = version + 1;
    return true;
  }

  void step(Random& random) {
    for (int i = 0; i < 32; ++i) {
      const auto window = view_.window();
      find(window.first + random() % (window.next - window.first + 1));
    }
    for (int i = 0; i < 64 && follow(); ++i) {
    }
    if (view_.size() > kWindow + 2) fault("size {}", view_.size());
  }

  Findings findings;

 private:
  void mustBeOutside(Word version) {
    const auto window = view_.window();
    if (version >= window.first && version < window.next && seenNext_ > version) {
      fault("version {} was always there and is not found", version);
    }
  }

  void note(Word version) {
    const Word generation = generationOf(record_, 1, version);
    Latest& latest = latest_[version % std::size(latest_)];
    if (latest.version == version && generation < latest.generation) {
      fault("version {} went back from generation {} to {}", version, latest.generation,
            generation);
    }
    if (latest.version != version || latest.generation != generation) ++findings.changes;
    latest = {version, generation};
    seenNext_ = std::max(seenNext_, version + 1);
  }

  struct Latest {
    Word version;
    Word generation;
  };

  Drift::DenseView view_;
  std::vector<Word> record_;
  Word followed_ = 0;
  Word seenNext_ = 0;
  Latest latest_[256] = {};
};

}  // namespace DriftTest
