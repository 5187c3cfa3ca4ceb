#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/Publisher.h"
#include "Fenrik/RQueue.h"
#include "Fenrik/RQueueIter.h"
#include "OrderedTable/FlagScope.h"
#include "OrderedTable/ResolverEntry.h"

namespace Asic {

/// What the groups of an agent have in common. A commit in one group may free the waiting head of
/// another.
struct CommitCount {
  std::uint64_t commits = 0;
  /// Operations in the queues of all groups.
  std::uint64_t queued = 0;
};

/// The queue of a group's operations. Operations are committed strictly in queueing order, and only
/// by a pump; queueing commits nothing.
///
/// Threads: the table thread.
///
/// I1. The head is asked whether it is resolved only if its answer may have changed: it has just
///     become the head, `updateGenId` was called for a reason other than queueing an operation
///     after it, the dependency or the resource that it waits for changed, or a group committed.
/// I2. An operation leaves the queue before its commit begins: code called during the commit sees a
///     consistent queue, and an exception cannot lead to a second commit.
class QUARNBASTIL_EXPORT GroupResolver final : public Fenrik::NodeClass<GroupResolver> {
 public:
  using KivModule = Kiv::Module<"GroupResolver", GroupResolver>;
  static constexpr std::uint16_t kFieldBase = 128;

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, resolverQueue, queue);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, suspended, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, length, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, greatestLength, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 6, looks, value);
  FENRIK_FUNCTION(kFieldBase + 7, updateGenId);
  FENRIK_FUNCTION(kFieldBase + 8, maybeUpdateSuspend);

  explicit GroupResolver(std::shared_ptr<CommitCount> commitCount);
  ~GroupResolver() override;

  /// While in scope, calls of `updateGenId` are taken as the effect of queueing an operation.
  class QueueingScope {
   public:
    explicit QueueingScope(GroupResolver& resolver) noexcept : flag_(resolver.queueing_) {}

   private:
    FlagScope flag_;
  };

  /// Appends an operation. A later `pump` commits it.
  void resolverQueueEnq(const Fenrik::Ptr<ResolverEntry>& entry);
  /// Call after every change that can alter the answer of the head.
  void updateGenId() const noexcept;
  /// Re-evaluates whether the group waits or can proceed.
  void maybeUpdateSuspend() noexcept;

  /// A table of the group is being destroyed: its queued operations pass without a commit.
  void tableGone(const OrderedSwTable& table);

  /// Commits up to `budget` operations and returns the number committed. A call from within a
  /// commit does nothing; the outer call continues. If a commit, or a handler called by it, throws,
  /// the exception passes through and the queue is consistent.
  unsigned pump(unsigned budget);
  /// Whether a pump would ask the head: the queue is not empty and the head's answer may have
  /// changed.
  bool ready() const noexcept {
    return !queue_.empty() && (askedGenId_ != genId_ || askedCommits_ != commitCount_->commits);
  }

  /// Whether the head waits for something outside the group's control.
  bool suspended() const noexcept { return suspended_; }
  std::uint32_t length() const noexcept { return queue_.size(); }
  /// Iterate over the queued operations.
  Fenrik::RQueueBaseConstIter<Fenrik::Ptr<ResolverEntry>> resolverQueueIter() const {
    return Fenrik::RQueueBaseConstIter<Fenrik::Ptr<ResolverEntry>>(queue_);
  }
  Fenrik::RQueueBaseConstIter<Fenrik::Ptr<ResolverEntry>> resolverQueueIter(
      std::uint32_t index) const {
    return Fenrik::RQueueBaseConstIter<Fenrik::Ptr<ResolverEntry>>(queue_, index);
  }
  std::uint32_t greatestLength() const noexcept { return greatestLength_; }
  /// How many times a head has been asked.
  std::uint64_t looks() const noexcept { return looks_; }

  /// The head's identity and what it waits for. The table name is empty if the queue is empty.
  struct Head {
    ResolverEntry::Waiting waiting;
    std::chrono::nanoseconds age{};
  };
  Head head() const;

 private:
  struct QUARNBASTIL_EXPORT QE_ResolverQueue {};

  /// Subscription to what the head waits for.
  struct HeadWatch : Fenrik::Subscriber {
    explicit HeadWatch(const GroupResolver& resolver) : resolver(resolver) {}
    const GroupResolver& resolver;
    ResolverEntry::Awaited awaited;
  };

  bool askHead();
  void prefetchBehind() const noexcept;
  void watch(ResolverEntry::Awaited awaited);
  void unwatch();
  void headIsNew() noexcept;

  Fenrik::RQueue<Fenrik::Ptr<ResolverEntry>, false, QE_ResolverQueue> queue_;
  std::shared_ptr<CommitCount> commitCount_;
  HeadWatch watch_;
  /// Changes that may alter the head's answer, counted.
  mutable std::uint64_t genId_ = 0;
  /// Values of `genId_` and of the commit count when the head was last asked.
  std::uint64_t askedGenId_ = UINT64_MAX;
  std::uint64_t askedCommits_ = 0;
  bool queueing_ = false;
  bool suspended_ = false;
  bool pumping_ = false;
  std::uint32_t greatestLength_ = 0;
  std::uint64_t looks_ = 0;
};

}  // namespace Asic
