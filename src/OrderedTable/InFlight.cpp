#include "OrderedTable/InFlight.h"

#include <cstring>
#include <new>

#include "Kiv/HashHelper.h"
#include "OvSlab/OvSlab.h"

namespace Asic {

namespace {

/// Enough for the window of a busy client without growing.
constexpr std::uint32_t kFirstBuckets = 1024;
/// Buckets emptied per insertion: a growth completes long before the next one is due.
constexpr std::uint32_t kMovesPerInsertion = 4;

/// 2^64 divided by the golden ratio; multiplying by it spreads every bit upwards.
constexpr InFlight::Word kSpread = 0x9e3779b97f4a7c15;

constexpr auto kPattern = OvSlab::SlabAllocationPattern::perWrite;

}  // namespace

InFlight::InFlight(std::size_t keyWords, std::uint32_t salt)
    : keyWords_(keyWords),
      seed_((Kiv::HashHelper::hashSeed32() ^ salt) * kSpread),
      buckets_(std::make_unique<Bucket[]>(kFirstBuckets)),
      mask_(kFirstBuckets - 1) {}

InFlight::~InFlight() {
  while (first_ != nullptr) {
    InFlightKey& key = *first_;
    if (key.add != nullptr) key.add->inFlight_ = nullptr;
    if (key.remove != nullptr) key.remove->inFlight_ = nullptr;
    unlink(key);
    free(key);
  }
}

std::uint32_t InFlight::hashOf(const Word* key) const noexcept {
  Word hash = seed_;
  for (std::size_t i = 0; i < keyWords_; ++i) {
    hash = (hash ^ key[i]) * kSpread;
    hash ^= hash >> 32;
  }
  return static_cast<std::uint32_t>(hash);
}

bool InFlight::same(const InFlightKey& entry, const Word* key) const noexcept {
  Word difference = 0;
  for (std::size_t i = 0; i < keyWords_; ++i) difference |= entry.key()[i] ^ key[i];
  return difference == 0;
}

InFlight::Bucket& InFlight::bucketOf(std::uint32_t hash) const noexcept {
  if (former_ != nullptr) [[unlikely]] {
    const std::uint32_t place = hash & (mask_ >> 1);
    if (place >= moved_) return former_[place];
  }
  return buckets_[hash & mask_];
}

InFlightKey* InFlight::find(const Word* key) const noexcept {
  if (keys_ == 0) return nullptr;
  const std::uint32_t hash = hashOf(key);
  for (InFlightKey* entry = bucketOf(hash); entry != nullptr; entry = entry->nextInBucket_) {
    if (entry->hash_ == hash && same(*entry, key)) return entry;
  }
  return nullptr;
}

InFlightKey& InFlight::obtain(const Word* key) {
  const std::uint32_t hash = hashOf(key);
  for (InFlightKey* entry = bucketOf(hash); entry != nullptr; entry = entry->nextInBucket_) {
    if (entry->hash_ == hash && same(*entry, key)) return *entry;
  }
  if (former_ != nullptr) moveSome();
  if (keys_ > mask_) grow();
  const auto size = static_cast<unsigned>(sizeof(InFlightKey) + keyWords_ * sizeof(Word));
  auto* const entry = ::new (OvSlab::slabAlloc(size, kPattern)) InFlightKey;
  std::memcpy(static_cast<void*>(entry + 1), key, keyWords_ * sizeof(Word));
  entry->hash_ = hash;
  Bucket& bucket = bucketOf(hash);
  entry->nextInBucket_ = bucket;
  bucket = entry;
  entry->before_ = last_;
  (last_ != nullptr ? last_->behind_ : first_) = entry;
  last_ = entry;
  ++keys_;
  return *entry;
}

void InFlight::settle(InFlightKey& key) noexcept {
  if (!key.empty() || !key.indexed_) return;
  for (Bucket* link = &bucketOf(key.hash_);; link = &(*link)->nextInBucket_) {
    if (*link != &key) continue;
    *link = key.nextInBucket_;
    break;
  }
  --keys_;
  key.indexed_ = false;
  if (key.walks_ != 0) return;
  unlink(key);
  free(key);
}

void InFlight::grow() {
  while (former_ != nullptr) moveSome();
  const std::uint32_t count = (mask_ + 1) * 2;
  auto larger = std::make_unique<Bucket[]>(count);
  former_ = std::exchange(buckets_, std::move(larger));
  mask_ = count - 1;
  moved_ = 0;
}

void InFlight::moveSome() noexcept {
  const std::uint32_t count = (mask_ + 1) / 2;
  for (std::uint32_t i = 0; i < kMovesPerInsertion && moved_ < count; ++i, ++moved_) {
    for (InFlightKey* entry = former_[moved_]; entry != nullptr;) {
      InFlightKey* const next = entry->nextInBucket_;
      Bucket& bucket = buckets_[entry->hash_ & mask_];
      entry->nextInBucket_ = bucket;
      bucket = entry;
      entry = next;
    }
  }
  if (moved_ == count) former_ = nullptr;
}

void InFlight::unlink(InFlightKey& key) noexcept {
  (key.before_ != nullptr ? key.before_->behind_ : first_) = key.behind_;
  (key.behind_ != nullptr ? key.behind_->before_ : last_) = key.before_;
}

void InFlight::free(InFlightKey& key) noexcept {
  const auto size = static_cast<unsigned>(sizeof(InFlightKey) + keyWords_ * sizeof(Word));
  key.~InFlightKey();
  OvSlab::slabFree(&key, typeid(InFlightKey), size, kPattern);
}

Fenrik::Ptr<EntryWrapperBase> InFlight::placed(InFlightKey& key,
                                               Fenrik::Ptr<EntryWrapperBase>& place,
                                               Fenrik::Ptr<EntryWrapperBase> wrapper,
                                               std::uint32_t& count) {
  count += (wrapper != nullptr ? 1U : 0U) - (place != nullptr ? 1U : 0U);
  if (place != nullptr) place->inFlight_ = nullptr;
  if (wrapper != nullptr) wrapper->inFlight_ = &key;
  place.swap(wrapper);
  return wrapper;
}

Fenrik::Ptr<EntryWrapperBase> InFlight::addIs(InFlightKey& key,
                                              Fenrik::Ptr<EntryWrapperBase> wrapper) {
  return placed(key, key.add, std::move(wrapper), adds_);
}

Fenrik::Ptr<EntryWrapperBase> InFlight::removeIs(InFlightKey& key,
                                                 Fenrik::Ptr<EntryWrapperBase> wrapper) {
  return placed(key, key.remove, std::move(wrapper), removes_);
}

void InFlight::versionIs(InFlightKey& key, const EntryVersion& version) noexcept {
  if (!std::exchange(key.counted, true)) ++versions_;
  key.version = version;
}

void InFlight::versionDel(InFlightKey& key) noexcept {
  if (std::exchange(key.counted, false)) --versions_;
  key.version = EntryVersion();
}

bool InFlight::shows(View view, const InFlightKey& key) noexcept {
  switch (view) {
    case View::adds:
      return key.add != nullptr;
    case View::removes:
      return key.remove != nullptr;
    case View::versions:
      return key.counted;
  }
  return false;
}

InFlight::Walk::Walk(const InFlight& index, View view)
    : index_(const_cast<InFlight*>(&index)), view_(view) {
  enter(shownFrom(index_->first_));
}

InFlight::Walk::Walk(const InFlight& index, View view, const InFlightKey* from)
    : index_(const_cast<InFlight*>(&index)), view_(view) {
  if (from != nullptr && shows(view, *from)) enter(const_cast<InFlightKey*>(from));
}

InFlight::Walk::Walk(const Walk& other) noexcept : index_(other.index_), view_(other.view_) {
  enter(other.at_);
}

InFlight::Walk& InFlight::Walk::operator=(const Walk& other) noexcept {
  InFlightKey* const left = at_;
  index_ = other.index_;
  view_ = other.view_;
  enter(other.at_);
  leave(left);
  return *this;
}

InFlight::Walk& InFlight::Walk::operator++() noexcept {
  InFlightKey* const left = at_;
  enter(shownFrom(left->behind_));
  leave(left);
  return *this;
}

InFlightKey* InFlight::Walk::shownFrom(InFlightKey* key) const noexcept {
  while (key != nullptr && !shows(view_, *key)) key = key->behind_;
  return key;
}

void InFlight::Walk::enter(InFlightKey* key) noexcept {
  at_ = key;
  if (key != nullptr) ++key->walks_;
}

void InFlight::Walk::leave(InFlightKey* key) noexcept {
  if (key != nullptr) index_->release(*key);
}

void InFlight::release(InFlightKey& key) noexcept {
  if (--key.walks_ != 0 || key.indexed_) return;
  unlink(key);
  free(key);
}

}  // namespace Asic
