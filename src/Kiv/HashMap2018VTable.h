#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>

#include "Fenrik/Export.h"
#include "Kiv/HashMap2018Bucket.h"

namespace Kiv {

/// An index whose second parameter keeps it apart from indices of another kind.
template <class T, unsigned kind>
class TypeSafeIndex {
 public:
  constexpr TypeSafeIndex() noexcept = default;
  constexpr explicit TypeSafeIndex(T value) noexcept : value_(value) {}

  constexpr T value() const noexcept { return value_; }

  friend constexpr auto operator<=>(TypeSafeIndex, TypeSafeIndex) noexcept = default;

 private:
  T value_ = 0;
};

/// A position among the slots of a bucket.
using HashMap2018SlotIndex = TypeSafeIndex<unsigned short, 2>;
/// A position or count at the level of the whole map.
using HashMap2018MapIndex = TypeSafeIndex<unsigned int, 1>;

/// What becomes of the source of a node. Every value but 0 copies.
enum class MoveOrCopy : std::uint32_t { move = 0, copy = 1 };

/// The runs of nodes of which a fresh bucket is made, in order.
struct HashMap2018NodeSourceColl {
  struct Run {
    MoveOrCopy mode;
    std::uint32_t count;
    HashMap2018LinkNodeBase* first;
  };

  /// What stands before a gap, the node that fills it, what stands behind it.
  static constexpr unsigned kRunsMax = 3;

  /// Adds a run unless it is empty.
  void runAdd(MoveOrCopy mode, unsigned count, HashMap2018LinkNodeBase* first) noexcept {
    if (count != 0) runs[runCount++] = {mode, count, first};
  }

  std::uint8_t reserved[2] = {};
  std::uint8_t runCount = 0;
  Run runs[kRunsMax];
};

static_assert(offsetof(HashMap2018NodeSourceColl, runCount) == 2);

/// The operations of one collection on its nodes, one constant record per collection. Everything
/// that the generic layer does with a node goes through it. No operation lets an exception out.
struct QUARNBASTIL_EXPORT HashMap2018VTable {
  /// The control word of every collection of this system.
  static constexpr std::uint32_t kControl = 0x104;

  std::uint32_t control;
  /// Bytes of one node.
  std::uint32_t nodeSize;

  /// Drops one reference on a bucket; with the last one destroys its nodes and frees it.
  void (*bktHdrRefDec)(const HashMap2018BucketHdr* hdr);

  /// Does the key equal the node's key?
  bool (*keyEqualsNode)(const void* key, const HashMap2018LinkNodeBase* node);

  /// Constructs a node in an empty slot from another one.
  void (*place)(const HashMap2018VTable* vt, void* slot, HashMap2018LinkNodeBase* node,
                MoveOrCopy mode);

  /// Closes a gap of -`slotsToShift` slots at `index`, whose nodes it destroys, or opens one slot
  /// there and swaps `link` into it. Everything else keeps its order. `size` is the number of
  /// occupied slots before.
  void (*shift)(const HashMap2018VTable* vt, HashMap2018LinkNodeBase* nodes,
                HashMap2018LinkNodeBase* link, HashMap2018SlotIndex size,
                HashMap2018SlotIndex index, int slotsToShift);

  /// Tells allocation tracking of a fresh bucket and fills it from the runs.
  void (*newBucketAssemble)(const HashMap2018VTable* vt, HashMap2018SlotIndex capacity, void* nodes,
                            const HashMap2018NodeSourceColl& sources);

  /// Compares the key of `a`, or `key` if `a` is null, with the key of `b`: 0 equal, 1 less, 2 all
  /// else. It only compares; the other use in its name belongs to maps in least-recently-used
  /// mode, of which there are none.
  int (*compareOrLruUnlink)(const void* key, const HashMap2018LinkNodeBase* a,
                            const HashMap2018LinkNodeBase* b);

  /// The operations of nodes that are plain data.
  static void trivialPlace(const HashMap2018VTable* vt, void* slot, HashMap2018LinkNodeBase* node,
                           MoveOrCopy mode);
  static void trivialShift(const HashMap2018VTable* vt, HashMap2018LinkNodeBase* nodes,
                           HashMap2018LinkNodeBase* link, HashMap2018SlotIndex size,
                           HashMap2018SlotIndex index, int slotsToShift);
  static void trivialNewBucketAssemble(const HashMap2018VTable* vt, void* nodes,
                                       const HashMap2018NodeSourceColl& sources);
};

}  // namespace Kiv
