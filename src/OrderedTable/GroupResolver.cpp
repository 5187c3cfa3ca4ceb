#include "OrderedTable/GroupResolver.h"

#include <algorithm>
#include <ctime>

#include "Fenrik/Assert.h"
#include "OrderedTable/FlagScope.h"

namespace Asic {

namespace {

/// Uses the coarse clock: ages serve diagnostics only, and every queueing reads the time.
std::chrono::nanoseconds coarseTime() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// Counts a commit when it ends, even by an exception.
class CommitScope {
 public:
  explicit CommitScope(CommitCount& count) : count_(count) {}
  ~CommitScope() { ++count_.commits; }
  CommitScope(const CommitScope&) = delete;
  CommitScope& operator=(const CommitScope&) = delete;

 private:
  CommitCount& count_;
};

}  // namespace

GroupResolver::GroupResolver(std::shared_ptr<CommitCount> commitCount)
    : commitCount_(std::move(commitCount)), watch_(*this) {
  FENRIK_ASSERT(commitCount_ != nullptr);
}

GroupResolver::~GroupResolver() {
  unwatch();
  commitCount_->queued -= queue_.size();
}

void GroupResolver::resolverQueueEnq(const Fenrik::Ptr<ResolverEntry>& entry) {
  entry->queuedAtIs(coarseTime());
  if (queue_.empty()) headIsNew();
  queue_.enq(entry);
  ++commitCount_->queued;
  greatestLength_ = std::max(greatestLength_, queue_.size());
}

void GroupResolver::updateGenId() const noexcept {
  // An operation queued after the head cannot change the head's answer; a new head is asked anyway.
  if (!queueing_) ++genId_;
}

void GroupResolver::maybeUpdateSuspend() noexcept { suspended_ = !queue_.empty() && !ready(); }

void GroupResolver::headIsNew() noexcept {
  unwatch();
  askedGenId_ = UINT64_MAX;
}

bool GroupResolver::askHead() {
  ++looks_;
  askedGenId_ = genId_;
  askedCommits_ = commitCount_->commits;
  const Fenrik::Ptr<ResolverEntry> head = *queue_.front();
  if (head->isResolved()) return true;
  watch(head->awaited());
  return false;
}

void GroupResolver::watch(ResolverEntry::Awaited awaited) {
  if (watch_.awaited.object == awaited.object) return;
  unwatch();
  if (awaited.object == nullptr) return;
  watch_.awaited = std::move(awaited);
  watch_.dispatchIs([](const Fenrik::Publisher&, Fenrik::Subscriber& subscriber,
                       const Fenrik::Change& change) noexcept {
    const auto& self = static_cast<const HeadWatch&>(subscriber);
    if (change.fieldId == self.awaited.field) ++self.resolver.genId_;
  });
  watch_.awaited.object->publisher()->subscriberAdd(watch_, false);
}

void GroupResolver::unwatch() {
  watch_.unsubscribe();
  watch_.awaited.object = nullptr;
}

unsigned GroupResolver::pump(unsigned budget) {
  if (pumping_) return 0;
  const FlagScope pumping(pumping_);
  unsigned committed = 0;
  while (committed < budget && ready()) {
    if (!askHead()) break;
    const Fenrik::Ptr<ResolverEntry> entry = queue_.deq();
    --commitCount_->queued;
    headIsNew();
    ++committed;
    prefetchBehind();
    const CommitScope count(*commitCount_);
    entry->commitEntry(entry);
  }
  maybeUpdateSuspend();
  return committed;
}

void GroupResolver::tableGone(const OrderedSwTable& table) {
  if (queue_.empty()) return;
  for (std::uint32_t i = 0, front = queue_.frontIndex(); i < queue_.size(); ++i) {
    const Fenrik::Ptr<ResolverEntry> entry = *queue_.find(front + i);
    entry->tableGone(table);
  }
  headIsNew();
}

/// Commits are bound by random memory access; the queue gives the addresses in advance.
void GroupResolver::prefetchBehind() const noexcept {
  // Prefetch distances in commits: two take about as long as one cache miss.
  constexpr std::uint32_t kNear = 2;
  constexpr std::uint32_t kFar = 4;
  const std::uint32_t front = queue_.frontIndex();
  if (const auto* const far = queue_.find(front + kFar)) (*far)->prefetch(false, kFar);
  if (const auto* const near = queue_.find(front + kNear)) (*near)->prefetch(true, kNear + 1);
}

GroupResolver::Head GroupResolver::head() const {
  if (queue_.empty()) return {};
  const Fenrik::Ptr<ResolverEntry> entry = *queue_.front();
  return {entry->waiting(), coarseTime() - entry->queuedAt()};
}

}  // namespace Asic
