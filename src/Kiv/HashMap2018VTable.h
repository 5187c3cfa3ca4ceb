#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>

#include "Fenrik/Export.h"
#include "Kiv/HashMap2018Bucket.h"

namespace Kiv {

/// An index; `kind` distinguishes it from other kinds of indices.
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

/// A slot of a bucket.
using HashMap2018SlotIndex = TypeSafeIndex<unsigned short, 2>;
/// A position or count for the whole map.
using HashMap2018MapIndex = TypeSafeIndex<unsigned int, 1>;

/// Whether a node is moved or copied from its source. Every value except 0 copies.
enum class MoveOrCopy : std::uint32_t { move = 0, copy = 1 };

/// The runs of nodes from which a new bucket is assembled, in order.
struct HashMap2018NodeSourceColl {
  struct Run {
    MoveOrCopy mode;
    std::uint32_t count;
    HashMap2018LinkNodeBase* first;
  };

  /// The nodes before a gap, the node that fills it, and those after it.
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

/// Operations of one collection on its nodes, one constant record per collection. The generic layer
/// accesses nodes only through it. No operation throws.
struct QUARNBASTIL_EXPORT HashMap2018VTable {
  /// Control word of every collection of this system.
  static constexpr std::uint32_t kControl = 0x104;

  std::uint32_t control;
  /// Bytes of one node.
  std::uint32_t nodeSize;

  /// Drops one reference to a bucket; the last one destroys its nodes and frees it.
  void (*bktHdrRefDec)(const HashMap2018BucketHdr* hdr);

  /// Whether the key equals the node's key.
  bool (*keyEqualsNode)(const void* key, const HashMap2018LinkNodeBase* node);

  /// Constructs a node in an empty slot from another node.
  void (*place)(const HashMap2018VTable* vt, void* slot, HashMap2018LinkNodeBase* node,
                MoveOrCopy mode);

  /// Destroys the nodes of -`slotsToShift` slots at `index` and closes the gap, or opens one slot
  /// at `index` and swaps `link` into it. The order of the others is unchanged. `size` is the
  /// number of occupied slots before.
  void (*shift)(const HashMap2018VTable* vt, HashMap2018LinkNodeBase* nodes,
                HashMap2018LinkNodeBase* link, HashMap2018SlotIndex size,
                HashMap2018SlotIndex index, int slotsToShift);

  /// Reports a new bucket to allocation tracking and fills it from the runs.
  void (*newBucketAssemble)(const HashMap2018VTable* vt, HashMap2018SlotIndex capacity, void* nodes,
                            const HashMap2018NodeSourceColl& sources);

  /// Compares the key of `a`, or `key` if `a` is null, with the key of `b`: 0 equal, 1 less, 2
  /// otherwise. Its name's second use is for maps in least-recently-used mode, which do not exist
  /// here.
  int (*compareOrLruUnlink)(const void* key, const HashMap2018LinkNodeBase* a,
                            const HashMap2018LinkNodeBase* b);

  /// Operations for trivially copyable nodes.
  static void trivialPlace(const HashMap2018VTable* vt, void* slot, HashMap2018LinkNodeBase* node,
                           MoveOrCopy mode);
  static void trivialShift(const HashMap2018VTable* vt, HashMap2018LinkNodeBase* nodes,
                           HashMap2018LinkNodeBase* link, HashMap2018SlotIndex size,
                           HashMap2018SlotIndex index, int slotsToShift);
  static void trivialNewBucketAssemble(const HashMap2018VTable* vt, void* nodes,
                                       const HashMap2018NodeSourceColl& sources);
};

}  // namespace Kiv
