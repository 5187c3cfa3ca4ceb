#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <iostream>

#include "DriftKill/Collections.h"
#include "Support/KillPoint.h"
#include "Support/Soak.h"

namespace DriftTest {
namespace {

using Format::Layout;
using Support::storesLeft;

/// A number that a process leaves to the one that it was forked from.
class SharedCount {
 public:
  SharedCount()
      : word_(static_cast<Word*>(::mmap(nullptr, sizeof(Word), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    if (word_ == MAP_FAILED) fault("no shared memory");
  }
  ~SharedCount() { ::munmap(word_, sizeof(Word)); }
  SharedCount(const SharedCount&) = delete;
  SharedCount& operator=(const SharedCount&) = delete;

  Word value() const { return __atomic_load_n(word_, __ATOMIC_ACQUIRE); }
  void valueIs(Word value) { __atomic_store_n(word_, value, __ATOMIC_RELEASE); }

 private:
  Word* word_;
};

/// One process after the other mounts a collection and takes the same steps, and dies at its first,
/// second, third store and so on, until one gets through.
class Deaths {
 public:
  Deaths(const Shape& shape, const Steps& before) : shape_(shape), before_(after({}, before)) {
    if (!before.empty()) Store(original_.path(), shape).apply(before);
  }
  ~Deaths() {
    std::cout << shape_.name() << ": " << deaths_ << " deaths, the step in flight not yet done at "
              << olds_ << ", done at " << news_ << '\n';
  }

  /// Tries the steps without a death; gives the word of the header as they leave it.
  Word rehearse(const Steps& steps, Format::Line line) const {
    const TempDir copy;
    copyCollection(original_.path(), copy.path());
    Store store(copy.path(), shape_);
    store.apply(steps);
    return Drift::CheckedWord(store.file().data(), line).load().value();
  }

  /// A death behind every store, or behind each of so many.
  void run(const Steps& steps, std::size_t stride = 1) {
    steps_ = steps;
    for (std::size_t stores = 1; !livesThrough(stores); stores += stride) {
      ++deaths_;
      const std::size_t done = done_.value();
      Either either;
      either.before = after(before_, std::span(steps_).first(done));
      either.after = done < steps_.size() ? after(either.before, steps_[done]) : either.before;
      try {
        check(either);
      } catch (const std::exception& wrong) {
        FAIL() << "death at store " << stores << ", in step " << done << ": " << wrong.what();
      }
    }
  }
  std::size_t deaths() const { return deaths_; }
  std::size_t olds() const { return olds_; }
  std::size_t news() const { return news_; }

 private:
  /// What a death leaves behind is in `work_`, the number of steps that were done in `done_`.
  bool livesThrough(std::size_t stores) {
    work_.emplace();
    copyCollection(original_.path(), work_->path());
    done_.valueIs(0);
    const pid_t child = ::fork();
    if (child == 0) {
      storesLeft = stores;
      Store store(work_->path(), shape_);
      for (const Step& step : steps_) {
        store.apply(step);
        done_.valueIs(done_.value() + 1);
      }
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return false;
    if (status != 0 || done_.value() != steps_.size()) fault("a process ended with {:#x}", status);
    return true;
  }

  void check(const Either& either) {
    const Word keys = shape_.dense() ? 0 : 2 * shape_.capacity;
    std::optional<bool> wasNew;
    if (exists(work_->path())) wasNew = either.isNew(Reader(work_->path()).read(keys));
    Store successor(work_->path(), shape_);
    const Seen seen = successor.read(keys);
    const bool isNew = either.isNew(seen);
    if (wasNew.value_or(isNew) != isNew) fault("a reader and the successor differ");
    ++(isNew ? news_ : olds_);
    const Contents& contents = isNew ? either.after : either.before;
    expectExactly(seen, contents);
    goOn(successor, contents, keys);
  }

  Shape shape_;
  Contents before_;
  Steps steps_;
  TempDir original_;
  std::optional<TempDir> work_;
  SharedCount done_;
  std::size_t deaths_ = 0;
  std::size_t olds_ = 0;
  std::size_t news_ = 0;
};

/// Steps that fill a table of 16 buckets with tombstones over and over.
Steps hashedSteps(std::mt19937& random, std::size_t count, Contents contents) {
  Steps steps;
  for (Word generation = 2; steps.size() < count; ++generation) {
    const Word key = random() % 16;
    const Step step = steps.size() % 50 == 49 ? removeAll()
                      : contents.contains(key)
                          ? (random() % 3 == 0 ? set(key, generation) : remove(key))
                      : contents.size() < 6 ? set(key, generation)
                                            : remove(contents.begin()->first);
    steps.push_back(step);
    contents = after(std::move(contents), step);
  }
  return steps;
}

/// Steps that go round a ring of 32 slots: with gaps, prepends, and changes within the window.
Steps denseSteps(std::mt19937& random, std::size_t count, Contents contents) {
  Steps steps;
  Word next = contents.rbegin()->first + 1;
  for (Word generation = 2; steps.size() < count; ++generation) {
    const Word first = contents.empty() ? next : contents.begin()->first;
    const Word within = first + random() % (next - first + 1);
    const unsigned dice = random() % 16;
    Step step = set(next + (dice == 0 ? 3 : 0), generation);
    if (next - first > 20 || dice > 11) step = remove(first);
    if (dice == 9 && first > 4 && next - first < 16) step = set(first - 1 - dice % 3, generation);
    if (dice == 10 && within < next) step = set(within, generation);
    if (dice == 11 && within < next) step = remove(within);
    if (steps.size() % 50 == 49) step = removeAll();
    if (step.kind == Step::Kind::set) next = std::max(next, step.key + 1);
    steps.push_back(step);
    contents = after(std::move(contents), step);
  }
  return steps;
}

Steps setAll(Word from, Word to) {
  Steps steps;
  for (Word key = from; key <= to; ++key) steps.push_back(set(key));
  return steps;
}

constexpr std::uint32_t kSizes[] = {24, 124, 536};

/// Whether the steps change the index table for its tombstones, or go round the ring of 32.
bool goesRound(const Deaths& deaths, const Steps& steps, bool dense) {
  if (dense) return deaths.rehearse(steps, Format::Line::next) > 32;
  const auto isRemoveAll = [](const Step& step) { return step.kind == Step::Kind::removeAll; };
  const auto removeAlls = static_cast<Word>(std::ranges::count_if(steps, isRemoveAll));
  return deaths.rehearse(steps, Format::Line::active) >> 1 > removeAlls;
}

template <class MakeSteps>
void dieAtEveryStore(Layout layout, Word capacity, MakeSteps makeSteps) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  std::mt19937 random(seed);
  for (const std::uint32_t size : kSizes) {
    const Shape shape{layout, size, capacity};
    const Steps before = setAll(1, 6);
    // About as many stores at each size.
    Deaths deaths(shape, before);
    Steps steps;
    // Each file has a hash seed of its own: not all steps fill the table with tombstones.
    for (int tries = 0; tries < 100 && !goesRound(deaths, steps, shape.dense()); ++tries) {
      // About as many stores at each size.
      steps = makeSteps(random, size == 24 ? 150 : 100, after({}, before));
    }
    ASSERT_TRUE(goesRound(deaths, steps, shape.dense()));
    // A sanitizer makes a fork so dear that only every 17th store is tried.
    deaths.run(steps, kInstrumented ? 17 : 1);
    EXPECT_GT(deaths.olds(), deaths.deaths() / 10);
    EXPECT_GT(deaths.news(), deaths.deaths() / 50);
  }
}

TEST(KillPointDeathTest, AHashedCollectionLosesNothingAtAnyStore) {
  dieAtEveryStore(Layout::hashed, 8, hashedSteps);
}

TEST(KillPointDeathTest, ADenseCollectionLosesNothingAtAnyStore) {
  dieAtEveryStore(Layout::dense, 24, denseSteps);
}

TEST(KillPointDeathTest, ACollectionIsWholeOrAbsentWhileItIsMade) {
  for (const Shape& shape : {Shape{Layout::hashed, 124, 8}, Shape{Layout::dense, 124, 20}}) {
    Deaths deaths(shape, {});
    deaths.run({set(1)});
    EXPECT_GT(deaths.deaths(), Format::kLineCount * 4);
    EXPECT_GT(deaths.news(), 0U);
  }
}

}  // namespace
}  // namespace DriftTest
