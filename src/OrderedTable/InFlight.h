#pragma once

#include <cstdint>
#include <memory>

#include "OrderedTable/EntryVersion.h"
#include "OrderedTable/EntryWrapperBase.h"

namespace Asic {

/// One key with operations in flight: its newest write or remove, and the version that it has
/// reached. The key's canonical words follow the object in memory.
struct InFlightKey {
  /// The newest write that is not committed, or null.
  Fenrik::Ptr<EntryWrapperBase> add;
  /// The newest remove that is not committed, or null.
  Fenrik::Ptr<EntryWrapperBase> remove;
  /// Invalid while no operation is counted.
  EntryVersion version;
  bool counted = false;

  const FlatShape::Word* key() const noexcept {
    return reinterpret_cast<const FlatShape::Word*>(this + 1);
  }
  bool empty() const noexcept { return add == nullptr && remove == nullptr && !counted; }

 private:
  friend class InFlight;

  InFlightKey* nextInBucket_ = nullptr;
  InFlightKey* before_ = nullptr;
  InFlightKey* behind_ = nullptr;
  std::uint32_t hash_ = 0;
  /// Walks that stand here. A key that has left the index keeps its place for them.
  std::uint32_t walks_ = 0;
  bool indexed_ = true;
};

/// The keys of one table that have operations in flight. What clients see as three keyed
/// attributes (the adds, the removes, the versions) are views of this one index.
///
/// Threads: the table thread. Cost: a look-up touches one bucket and the key; growth moves a few
/// keys per insertion, never all at once.
///
/// I1. A key is in the index exactly while it is not `empty()`.
/// I2. A walk survives every change: keys keep their places in order of arrival, and one that goes
///     while a walk stands on it stays until the walk has moved on.
class QUARNBASTIL_EXPORT InFlight {
 public:
  using Word = FlatShape::Word;

  /// `salt` makes the order of the buckets differ from other tables'.
  InFlight(std::size_t keyWords, std::uint32_t salt);
  ~InFlight();
  InFlight(const InFlight&) = delete;
  InFlight& operator=(const InFlight&) = delete;

  InFlightKey* find(const Word* key) const noexcept;
  /// The key, entered if it is absent. The caller makes it other than empty or calls `settle`.
  InFlightKey& obtain(const Word* key);
  /// Takes the key out if it is empty.
  void settle(InFlightKey& key) noexcept;

  /// Replace the wrapper under a key and return the former one; null empties the place.
  Fenrik::Ptr<EntryWrapperBase> addIs(InFlightKey& key, Fenrik::Ptr<EntryWrapperBase> wrapper);
  Fenrik::Ptr<EntryWrapperBase> removeIs(InFlightKey& key, Fenrik::Ptr<EntryWrapperBase> wrapper);
  void versionIs(InFlightKey& key, const EntryVersion& version) noexcept;
  void versionDel(InFlightKey& key) noexcept;

  std::uint32_t adds() const noexcept { return adds_; }
  std::uint32_t removes() const noexcept { return removes_; }
  std::uint32_t versions() const noexcept { return versions_; }

  /// Keeps a key in memory while somebody is told of its change, whatever he does.
  class QUARNBASTIL_EXPORT Hold {
   public:
    Hold(InFlight& index, InFlightKey& key) noexcept : index_(index), key_(key) { ++key.walks_; }
    ~Hold() { index_.release(key_); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    InFlight& index_;
    InFlightKey& key_;
  };

  /// What a view shows.
  enum class View : std::uint8_t { adds, removes, versions };
  static bool shows(View view, const InFlightKey& key) noexcept;

  /// A place in a view. It stays on its key when that goes: the key is readable, `gone()` is true.
  class QUARNBASTIL_EXPORT Walk {
   public:
    /// On the first key of the view, or on `from`, or at the end if the view does not show that.
    Walk(const InFlight& index, View view);
    Walk(const InFlight& index, View view, const InFlightKey* from);
    Walk(const Walk& other) noexcept;
    Walk& operator=(const Walk& other) noexcept;
    ~Walk() { leave(at_); }

    explicit operator bool() const noexcept { return at_ != nullptr; }
    const InFlightKey& operator*() const noexcept { return *at_; }
    const InFlightKey* operator->() const noexcept { return at_; }
    bool gone() const noexcept { return !shows(view_, *at_); }
    Walk& operator++() noexcept;

   private:
    void enter(InFlightKey* key) noexcept;
    void leave(InFlightKey* key) noexcept;
    InFlightKey* shownFrom(InFlightKey* key) const noexcept;

    InFlight* index_;
    View view_;
    InFlightKey* at_ = nullptr;
  };

 private:
  using Bucket = InFlightKey*;

  std::uint32_t hashOf(const Word* key) const noexcept;
  bool same(const InFlightKey& entry, const Word* key) const noexcept;
  Bucket& bucketOf(std::uint32_t hash) const noexcept;
  void grow();
  void moveSome() noexcept;
  void unlink(InFlightKey& key) noexcept;
  void release(InFlightKey& key) noexcept;
  void free(InFlightKey& key) noexcept;
  static Fenrik::Ptr<EntryWrapperBase> placed(InFlightKey& key,
                                              Fenrik::Ptr<EntryWrapperBase>& place,
                                              Fenrik::Ptr<EntryWrapperBase> wrapper,
                                              std::uint32_t& count);

  std::size_t keyWords_;
  Word seed_;
  std::unique_ptr<Bucket[]> buckets_;
  std::uint32_t mask_;
  /// The table before the last growth while keys of it have still to move; null otherwise.
  std::unique_ptr<Bucket[]> former_;
  std::uint32_t moved_ = 0;
  std::uint32_t keys_ = 0;
  InFlightKey* first_ = nullptr;
  InFlightKey* last_ = nullptr;
  std::uint32_t adds_ = 0;
  std::uint32_t removes_ = 0;
  std::uint32_t versions_ = 0;
};

}  // namespace Asic
