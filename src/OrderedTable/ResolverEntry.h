#pragma once

#include <chrono>

#include "Fenrik/NodeClass.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/EntryHandle.h"

namespace Asic {

/// One queued operation, as the group's resolver sees it.
class QUARNBASTIL_EXPORT ResolverEntry : public Fenrik::Node {
 public:
  using KivModule = struct ResolverEntryModule;
  using KivSelf = ResolverEntry;
  static constexpr std::uint16_t kFieldBase = 128;

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, dependantEntryHandle, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, flags, value);
  FENRIK_FUNCTION(kFieldBase + 4, isEntryDeleted);
  FENRIK_FUNCTION(kFieldBase + 5, isTableDeleted);
  FENRIK_FUNCTION(kFieldBase + 6, isResolved);
  FENRIK_FUNCTION(kFieldBase + 7, commitEntry);

  ResolverEntry(const Fenrik::Ptr<const DependencyEntryHandle>& dependantEntryHandle,
                EntryFlags flags)
      : dependantEntryHandle_(dependantEntryHandle), flags_(flags) {}
  ~ResolverEntry() override;

  /// Handle of the operation that this one depends on, or null.
  const Fenrik::Ptr<const DependencyEntryHandle>& dependantEntryHandle() const noexcept {
    return dependantEntryHandle_;
  }
  EntryFlags flags() const noexcept { return flags_; }
  bool isEntryDeleted() const noexcept { return flags_.value() == EntryFlags::kEntryDelete; }
  bool isTableDeleted() const noexcept { return flags_.value() == EntryFlags::kTableDelete; }

  /// Whether the operation can be committed now. May be called any number of times.
  virtual bool isResolved() = 0;
  /// What the operation waits for after a negative answer: a change of one attribute of an object.
  struct Awaited {
    /// Null if only the table or its log can change the answer.
    Fenrik::Ptr<const Fenrik::Node> object;
    Fenrik::FieldId field;
  };
  /// The dependency, unless an operation knows better.
  virtual Awaited awaited() const;
  /// Commits or fails the operation. In both cases it is finished for the queue.
  virtual void commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) = 0;

  /// Called when a table is destroyed. If the operation belongs to it, the operation is abandoned:
  /// its handle becomes `entryRejected`, so that dependent operations do not wait forever; no
  /// handler is called; and it passes the queue without a commit.
  virtual void tableGone(const OrderedSwTable& table) = 0;

  /// Prefetches what the commit of this operation, `ahead` operations from now, will touch. The
  /// second call has `near` set, and follows when the data requested by the first has arrived.
  virtual void prefetch(bool near, unsigned ahead) const noexcept;

  /// A description of the operation and of what it waits for, for diagnostics.
  struct Waiting {
    /// Name of the table.
    Fenrik::String table;
    unsigned unit = 0;
    /// Text form of the key.
    Fenrik::String key;
    /// Name of the operation.
    Fenrik::String operation;
    /// Empty if nothing delays the operation.
    Fenrik::String reason;
  };
  virtual Waiting waiting() const = 0;

  /// Time of queueing, stored for the resolver.
  std::chrono::nanoseconds queuedAt() const noexcept { return queuedAt_; }
  void queuedAtIs(std::chrono::nanoseconds time) noexcept { queuedAt_ = time; }

 private:
  Fenrik::Ptr<const DependencyEntryHandle> dependantEntryHandle_;
  EntryFlags flags_;
  std::chrono::nanoseconds queuedAt_{};
};

}  // namespace Asic
