#pragma once

#include <cstdint>
#include <memory>

#include "OrderedTable/EntryVersion.h"
#include "OrderedTable/EntryWrapperBase.h"

namespace Asic {

/// One key with operations in flight: its newest write and remove, and its current version. The
/// key's canonical words follow the object in memory.
struct InFlightKey {
  /// The newest uncommitted write, or null.
  Fenrik::Ptr<EntryWrapperBase> add;
  /// The newest uncommitted remove, or null.
  Fenrik::Ptr<EntryWrapperBase> remove;
  /// Version of the newest operation. Invalid unless `counted`.
  EntryVersion version;
  /// Whether the key has a version.
  bool counted = false;

  const FlatShape::Word* key() const noexcept {
    return reinterpret_cast<const FlatShape::Word*>(this + 1);
  }
  bool empty() const noexcept { return add == nullptr && remove == nullptr && !counted; }

 private:
  friend class InFlight;

  /// Next key in the same bucket of the index.
  InFlightKey* nextInBucket_ = nullptr;
  /// Neighbours in order of arrival.
  InFlightKey* before_ = nullptr;
  InFlightKey* behind_ = nullptr;
  std::uint32_t hash_ = 0;
  /// Walks and holds on this key. While nonzero, a key removed from the index keeps its place.
  std::uint32_t walks_ = 0;
  /// Whether the key is in the index.
  bool indexed_ = true;
};

/// The keys of one table that have operations in flight. Clients see this one index as three keyed
/// attributes: adds, removes, versions.
///
/// Threads: the table thread. Cost: a look-up touches one bucket and the key. Growth is
/// incremental: each insertion moves a few keys.
///
/// I1. A key is in the index exactly while it is not `empty()`.
/// I2. A walk survives every change. Keys keep their order of arrival, and a removed key stays in
///     place until every walk on it has moved on.
class QUARNBASTIL_EXPORT InFlight {
 public:
  using Word = FlatShape::Word;

  /// `salt` makes the bucket order differ from that of other tables.
  InFlight(std::size_t keyWords, std::uint32_t salt);
  ~InFlight();
  InFlight(const InFlight&) = delete;
  InFlight& operator=(const InFlight&) = delete;

  InFlightKey* find(const Word* key) const noexcept;
  /// The key, inserted if absent. The caller then makes it non-empty or calls `settle`.
  InFlightKey& obtain(const Word* key);
  /// Removes the key if it is empty.
  void settle(InFlightKey& key) noexcept;

  /// Set the key's wrapper and return the previous one. Null removes the wrapper.
  Fenrik::Ptr<EntryWrapperBase> addIs(InFlightKey& key, Fenrik::Ptr<EntryWrapperBase> wrapper);
  Fenrik::Ptr<EntryWrapperBase> removeIs(InFlightKey& key, Fenrik::Ptr<EntryWrapperBase> wrapper);
  void versionIs(InFlightKey& key, const EntryVersion& version) noexcept;
  void versionDel(InFlightKey& key) noexcept;

  std::uint32_t adds() const noexcept { return adds_; }
  std::uint32_t removes() const noexcept { return removes_; }
  std::uint32_t versions() const noexcept { return versions_; }

  /// Keeps a key in memory while its change is announced, whatever the subscribers do.
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

  /// The keyed attribute that a view presents.
  enum class View : std::uint8_t { adds, removes, versions };
  static bool shows(View view, const InFlightKey& key) noexcept;

  /// A position in a view. If its key is removed, the walk stays on it: it can still be read, and
  /// `gone()` is true.
  class QUARNBASTIL_EXPORT Walk {
   public:
    /// Starts at the first key of the view, or at `from`; at the end if the view does not contain
    /// `from`.
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
  /// The buckets before the last growth, until all their keys have moved; null otherwise.
  std::unique_ptr<Bucket[]> former_;
  /// Buckets of `former_` already moved.
  std::uint32_t moved_ = 0;
  std::uint32_t keys_ = 0;
  InFlightKey* first_ = nullptr;
  InFlightKey* last_ = nullptr;
  std::uint32_t adds_ = 0;
  std::uint32_t removes_ = 0;
  std::uint32_t versions_ = 0;
};

}  // namespace Asic
