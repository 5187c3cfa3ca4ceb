#pragma once

#include <chrono>

#include "Fenrik/NodeClass.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/EntryHandle.h"

namespace Asic {

/// One queued operation, as the group's resolver sees it.
class QUARNBASTIL_EXPORT ResolverEntry : public Fenrik::Node {
 public:
  ResolverEntry(const Fenrik::Ptr<const DependencyEntryHandle>& dependantEntryHandle,
                EntryFlags flags)
      : dependantEntryHandle_(dependantEntryHandle), flags_(flags) {}
  ~ResolverEntry() override;

  /// The handle of the operation on which this one depends; null if there is none.
  const Fenrik::Ptr<const DependencyEntryHandle>& dependantEntryHandle() const noexcept {
    return dependantEntryHandle_;
  }
  EntryFlags flags() const noexcept { return flags_; }
  bool isEntryDeleted() const noexcept { return flags_.value() == EntryFlags::kEntryDelete; }
  bool isTableDeleted() const noexcept { return flags_.value() == EntryFlags::kTableDelete; }

  /// Whether the operation may be committed now. May be asked any number of times.
  virtual bool isResolved() = 0;
  /// Commits the operation, or fails it; either way it is finished for the queue.
  virtual void commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) = 0;

  /// A table is going. If the operation is one of that table's, it is given up: its handle ends in
  /// `entryRejected`, so that nobody waits for it for ever, no handler is called, and its turn in
  /// the queue passes without a commit.
  virtual void tableGone(const OrderedSwTable& table) = 0;

  /// The operation will be committed after `ahead` others: fetches what its commit will touch into
  /// the processor's cache. `near` the second time, when what the first call asked for has come.
  virtual void prefetch(bool near, unsigned ahead) const noexcept;

  /// What the operation is and what it waits for, for people.
  struct Waiting {
    Fenrik::String table;
    unsigned unit = 0;
    Fenrik::String key;
    Fenrik::String operation;
    /// Empty when nothing holds it up.
    Fenrik::String reason;
  };
  virtual Waiting waiting() const = 0;

  /// When it was queued; the resolver's note.
  std::chrono::nanoseconds queuedAt() const noexcept { return queuedAt_; }
  void queuedAtIs(std::chrono::nanoseconds time) noexcept { queuedAt_ = time; }

 private:
  Fenrik::Ptr<const DependencyEntryHandle> dependantEntryHandle_;
  EntryFlags flags_;
  std::chrono::nanoseconds queuedAt_{};
};

}  // namespace Asic
