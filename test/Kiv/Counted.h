#pragma once

#include <compare>
#include <cstdint>
#include <set>

#include "Kiv/HashHelper.h"
#include "Support/Soak.h"

/// The seed of all random tests of this process, whose hash seed follows it.
inline unsigned testSeed() {
  static const unsigned seed = [] {
    const unsigned chosen = Support::seed();
    Kiv::HashHelper::hashSeed32Is(chosen | 1u);
    return chosen;
  }();
  return seed;
}

/// A key of two fields whose hash is as bad as the test wants: `spread` different hashes.
struct PairKey {
  std::uint8_t unit = 0;
  std::uint16_t number = 0;

  static inline unsigned spread = 0;

  std::uint32_t hash(std::uint32_t seed) const {
    if (spread != 0) return (unit + number) % spread;
    return Kiv::hashSingleAttr(Kiv::hashSingleAttr(seed, std::uint16_t{unit}), number);
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const PairKey*>(a) == *static_cast<const PairKey*>(b);
  }
  auto operator<=>(const PairKey&) const = default;
};

/// A value that is neither plain data nor a pointer, and knows every one of its kind: what is
/// destroyed twice, copied from the dead or left behind shows.
class Counted {
 public:
  static inline std::set<const Counted*> live;
  static inline unsigned faults = 0;

  explicit Counted(PairKey key = {}, int payload = 0) : key_(key), payload_(payload) { born(); }
  Counted(const Counted& other) : key_(other.alive().key_), payload_(other.payload_) { born(); }
  Counted(Counted&& other) noexcept : key_(other.alive().key_), payload_(other.payload_) {
    other.payload_ = kMovedFrom;
    born();
  }
  Counted& operator=(const Counted& other) {
    alive();
    key_ = other.alive().key_;
    payload_ = other.payload_;
    return *this;
  }
  Counted& operator=(Counted&& other) noexcept {
    *this = static_cast<const Counted&>(other);
    other.payload_ = kMovedFrom;
    return *this;
  }
  ~Counted() { faults += live.erase(this) != 1; }

  const PairKey& key() const { return alive().key_; }
  int payload() const { return alive().payload_; }
  bool operator==(const Counted& other) const {
    return key() == other.key() && payload() == other.payload();
  }

 private:
  static constexpr int kMovedFrom = -1;

  const Counted& alive() const {
    faults += live.count(this) != 1;
    return *this;
  }
  void born() { faults += !live.insert(this).second; }

  PairKey key_;
  int payload_;
};
