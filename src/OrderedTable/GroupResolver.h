#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "Fenrik/NodeClass.h"
#include "Fenrik/Publisher.h"
#include "Fenrik/RQueue.h"
#include "OrderedTable/FlagScope.h"
#include "OrderedTable/ResolverEntry.h"

namespace Asic {

/// Counts what all groups of one agent have done: a commit anywhere may free a head that waits.
struct CommitCount {
  std::uint64_t commits = 0;
  /// Operations in all queues.
  std::uint64_t queued = 0;
};

/// The queue of a group's operations. They are committed strictly in the order in which they were
/// queued, by whoever pumps; queueing only queues.
///
/// Threads: the table thread.
///
/// I1. The head is asked whether it is resolved only when something may have changed its answer:
///     it has become the head, `updateGenId` was called for another reason than the queueing of an
///     operation behind it, its dependency's state changed, or some group committed.
/// I2. An operation leaves the queue before its commit begins: whatever the commit calls sees a
///     consistent queue, and no exception makes it commit twice.
class QUARNBASTIL_EXPORT GroupResolver final : public Fenrik::NodeClass<GroupResolver> {
 public:
  explicit GroupResolver(std::shared_ptr<CommitCount> commitCount);
  ~GroupResolver() override;

  /// Within the scope an operation is queued: what `updateGenId` is told then is that.
  class QueueingScope {
   public:
    explicit QueueingScope(GroupResolver& resolver) noexcept : flag_(resolver.queueing_) {}

   private:
    FlagScope flag_;
  };

  /// Appends an operation. It is committed by a later `pump`.
  void resolverQueueEnq(const Fenrik::Ptr<ResolverEntry>& entry);
  /// Told after every change that can alter what the head would answer.
  void updateGenId() const noexcept;
  /// Re-evaluates whether the group waits or may go on.
  void maybeUpdateSuspend() noexcept;

  /// A table of the group is going: its operations pass without a commit.
  void tableGone(const OrderedSwTable& table);

  /// Commits up to `budget` operations and returns how many. Called from within a commit it does
  /// nothing: the outer call goes on. An exception of a commit, or of a handler that it calls,
  /// comes out with the queue consistent.
  unsigned pump(unsigned budget);
  /// Whether a pump would ask the head: the queue is not empty and its answer may have changed.
  bool ready() const noexcept {
    return !queue_.empty() && (askedGenId_ != genId_ || askedCommits_ != commitCount_->commits);
  }

  /// The head waits for something that only a change outside can bring.
  bool suspended() const noexcept { return suspended_; }
  std::uint32_t length() const noexcept { return queue_.size(); }
  std::uint32_t greatestLength() const noexcept { return greatestLength_; }
  /// How often a head was asked.
  std::uint64_t looks() const noexcept { return looks_; }

  /// What the head is and what it waits for; an empty table name when the queue is empty.
  struct Head {
    ResolverEntry::Waiting waiting;
    std::chrono::nanoseconds age{};
  };
  Head head() const;

 private:
  struct QUARNBASTIL_EXPORT QE_ResolverQueue {};

  /// Hears of the handle on which the head waits.
  struct DependencyWatch : Fenrik::Subscriber {
    explicit DependencyWatch(const GroupResolver& resolver) : resolver(resolver) {}
    const GroupResolver& resolver;
    Fenrik::Ptr<const DependencyEntryHandle> handle;
  };

  bool askHead();
  void prefetchBehind() const noexcept;
  void watchDependency(const Fenrik::Ptr<const DependencyEntryHandle>& handle);
  void unwatchDependency();
  void headIsNew() noexcept;

  Fenrik::RQueue<Fenrik::Ptr<ResolverEntry>, false, QE_ResolverQueue> queue_;
  std::shared_ptr<CommitCount> commitCount_;
  DependencyWatch watch_;
  mutable std::uint64_t genId_ = 0;
  std::uint64_t askedGenId_ = UINT64_MAX;
  std::uint64_t askedCommits_ = 0;
  bool queueing_ = false;
  bool suspended_ = false;
  bool pumping_ = false;
  std::uint32_t greatestLength_ = 0;
  std::uint64_t looks_ = 0;
};

}  // namespace Asic
