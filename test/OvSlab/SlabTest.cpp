#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "Fenrik/ThreadControl.h"
#include "OvSlab/AllocReport.h"
#include "OvSlab/AllocTrackTypeInfo.h"
#include "OvSlab/OvSlab.h"
#include "OvSlab/SlabStats.h"
#include "Support/Soak.h"

namespace {

using Kiv::AllocTrackRow;
using Kiv::AllocTrackTypeInfo;
using OvSlab::SlabAllocationPattern;

struct Large {};
struct Shared {};

AllocTrackRow rowOf(const std::string& name) {
  const std::vector<AllocTrackRow> rows = Kiv::allocTrackRows();
  const auto found = std::ranges::find_if(
      rows, [&](const AllocTrackRow& row) { return row.typeName.ends_with(name); });
  return found == rows.end() ? AllocTrackRow{} : *found;
}

OvSlab::SlabClassStats classStats(unsigned size, SlabAllocationPattern pattern) {
  for (const OvSlab::SlabClassStats& row : OvSlab::stats().classes) {
    if (row.objectSize == size && row.pattern == pattern) return row;
  }
  return {size, pattern, 0, 0, 0, 0};
}

std::size_t objectsLive() {
  std::size_t sum = 0;
  for (const OvSlab::SlabClassStats& row : OvSlab::stats().classes) sum += row.objectsLive;
  return sum;
}

/// Pages that have memory among those of the slabs in which the objects lie, or lay.
std::size_t residentPages(const std::vector<void*>& objects) {
  std::set<std::uintptr_t> slabs;
  for (const void* object : objects) slabs.insert(reinterpret_cast<std::uintptr_t>(object) >> 16);
  std::size_t resident = 0;
  for (const std::uintptr_t slab : slabs) {
    unsigned char pages[16] = {};
    EXPECT_EQ(::mincore(reinterpret_cast<void*>(slab << 16), sizeof(pages) * 4096, pages), 0);
    resident += static_cast<std::size_t>(std::ranges::count_if(pages, [](int p) { return p & 1; }));
  }
  return resident;
}

/// A piece of storage full of one byte, so that it shows when two overlap or one is written to.
struct Piece {
  unsigned char* storage;
  unsigned size;
  unsigned char fill;
  bool fromSlabAlloc;
  SlabAllocationPattern pattern;

  bool intact() const {
    return std::all_of(storage, storage + size, [&](unsigned char byte) { return byte == fill; });
  }
};

Piece makePiece(std::mt19937& random) {
  const unsigned magnitude = 1u << random() % 15;
  const unsigned size = static_cast<unsigned>(random()) % (magnitude + 1);
  const auto pattern =
      random() % 2 == 0 ? SlabAllocationPattern::longLived : SlabAllocationPattern::perWrite;
  const auto source = random() % 4;
  void* const storage = source == 0   ? std::malloc(size + 1)
                        : source == 1 ? OvSlab::slabAllocOrStdMalloc(size, pattern)
                                      : OvSlab::slabAlloc(size, pattern);
  const auto fill = static_cast<unsigned char>(random());
  std::memset(storage, fill, size);
  return {static_cast<unsigned char*>(storage), size, fill, source > 1, pattern};
}

void dropPiece(const Piece& piece, std::mt19937& random) {
  const auto way = random() % 4;
  if (piece.fromSlabAlloc && way == 0) {
    OvSlab::slabFree(piece.storage, typeid(Piece));
  } else if (piece.fromSlabAlloc && way == 1) {
    OvSlab::slabFree(piece.storage, typeid(Piece), piece.size, piece.pattern);
  } else if (way == 2) {
    OvSlab::slabFreeOrStdFree(piece.storage, typeid(Piece));
  } else {
    OvSlab::slabFreeOrStdFree(piece.storage);
  }
}

struct Course {
  bool locked;
  unsigned threads;
};
struct SlabModelTest : testing::TestWithParam<Course> {
  SlabModelTest() { Fenrik::ThreadControl::tsp_ = GetParam().locked; }
  ~SlabModelTest() override { Fenrik::ThreadControl::tsp_ = false; }
};
INSTANTIATE_TEST_SUITE_P(PlainLockedAndShared, SlabModelTest,
                         testing::Values(Course{false, 1}, Course{true, 1}, Course{true, 4}));

TEST_P(SlabModelTest, StorageOfEverySizeAndSourceKeepsItsBytesUntilItIsFreedOnAnyThread) {
  const Support::Seed seed;
  const std::size_t liveBefore = objectsLive();
  std::mutex mutex;
  std::vector<Piece> pieces;
  const auto work = [&](unsigned thread) {
    std::mt19937 random(seed + thread);
    for (unsigned step = 0; step != 60000; ++step) {
      const bool growing = step / 6000 % 2 == 0;
      const Piece piece = makePiece(random);
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(piece.storage) % 16, 0u);
      std::vector<Piece> taken;
      {
        const std::lock_guard lock(mutex);
        pieces.push_back(piece);
        while (!pieces.empty() && random() % 16 < (growing ? 6 : 9)) {
          std::swap(pieces[random() % pieces.size()], pieces.back());
          taken.push_back(pieces.back());
          pieces.pop_back();
        }
      }
      for (const Piece& old : taken) {
        ASSERT_TRUE(old.intact()) << "step " << step;
        dropPiece(old, random);
      }
      if (step % 5000 == 0) OvSlab::stats();
    }
  };
  std::vector<std::thread> workers;
  for (unsigned thread = 1; thread < GetParam().threads; ++thread) {
    workers.emplace_back(work, thread);
  }
  work(0);
  for (std::thread& worker : workers) worker.join();
  std::mt19937 random(seed);
  for (const Piece& piece : pieces) {
    ASSERT_TRUE(piece.intact());
    dropPiece(piece, random);
  }
  EXPECT_EQ(objectsLive(), liveBefore);
}

TEST(SlabTest, EmptySlabsGiveTheirMemoryBackAndASteadyLoadDoesNotFlap) {
  const auto pattern = SlabAllocationPattern::perWrite;
  const auto make = [&](std::vector<void*>& objects, std::size_t count) {
    while (objects.size() != count) {
      objects.push_back(std::memset(OvSlab::slabAlloc(448, pattern), 1, 448));
    }
  };
  const auto drop = [](std::vector<void*>& objects) {
    for (void* const object : objects) OvSlab::slabFree(object, typeid(int));
    objects.clear();
  };
  std::vector<void*> objects;
  make(objects, 60000);
  const std::vector<void*> places = objects;
  EXPECT_GT(residentPages(places), 60000u * 448 / 4096);
  const OvSlab::SlabStats full = OvSlab::stats();
  drop(objects);
  EXPECT_LE(residentPages(places), 10u * 16) << "of eight slabs that are kept and two in use";
  const OvSlab::SlabStats empty = OvSlab::stats();
  EXPECT_LT(empty.bytesHeld + 24'000'000, full.bytesHeld);
  EXPECT_LE(classStats(448, pattern).slabs, 2u);
  EXPECT_EQ(classStats(448, pattern).objectsLive, 0u);

  make(objects, 500);
  drop(objects);
  const std::size_t released = OvSlab::stats().slabsReleased;
  for (int round = 0; round != 50; ++round) {
    make(objects, 500);
    EXPECT_LE(OvSlab::stats().slabsReleased, released);
    drop(objects);
    EXPECT_EQ(OvSlab::stats().slabsReleased, released) << "four slabs came and went";
  }
}

TEST(SlabDeathTest, AWrongFreeIsRefusedWithTheClassAndTheAddress) {
  const auto twice = [](std::size_t others) {
    void* const object = OvSlab::slabAlloc(320);
    std::vector<void*> more(others);
    for (void*& other : more) other = OvSlab::slabAlloc(320);
    for (void* const other : more) OvSlab::slabFree(other, typeid(int));
    OvSlab::slabFree(object, typeid(Piece));
    OvSlab::slabFree(object, typeid(Piece));
  };
  EXPECT_DEATH(twice(0), "Piece freed twice.*320-byte objects, pattern 0") << "the spare object";
  EXPECT_DEATH(twice(3), "Piece freed twice.*320-byte objects, pattern 0") << "in a free list";
  EXPECT_DEATH(OvSlab::slabFree(static_cast<char*>(OvSlab::slabAlloc(320)) + 16, typeid(Piece)),
               "Piece is not the start of an object");
}

TEST(AllocTrackTest, EveryTrackerOfAClassReachesOneRecordAndNothingIsLostBetweenThreads) {
  Fenrik::ThreadControl::tsp_ = true;
  AllocTrackTypeInfo* trackers[2] = {nullptr, nullptr};
  const auto work = [&](unsigned thread) {
    AllocTrackTypeInfo*& tracker = trackers[thread % 2];
    for (unsigned i = 0; i != 20000; ++i) {
      AllocTrackTypeInfo::_trackAllocation(&tracker, typeid(Shared), 64, 8);
      AllocTrackTypeInfo::trackArrayAllocation(&tracker, typeid(Shared), 64, 3);
      const AllocTrackRow row = i % 1000 == 0 ? rowOf("::Shared") : AllocTrackRow{};
      EXPECT_TRUE(row.live <= row.peak && row.peak <= row.total);
      AllocTrackTypeInfo::trackDeallocation(tracker);
      if (i % 4 != 0) AllocTrackTypeInfo::trackArrayDeallocation(tracker, 3);
    }
  };
  std::vector<std::thread> workers;
  for (unsigned thread = 0; thread != 4; ++thread) workers.emplace_back(work, thread);
  for (std::thread& worker : workers) worker.join();
  Fenrik::ThreadControl::tsp_ = false;
  EXPECT_EQ(trackers[0], trackers[1]);
  const AllocTrackRow row = rowOf("::Shared");
  EXPECT_EQ(row.total, 4u * 20000 * 4);
  EXPECT_EQ(row.live, 4u * 5000 * 3);
  EXPECT_EQ(row.liveArrays, 4u * 5000);
  EXPECT_GE(row.peak, row.live);
  EXPECT_LE(row.peak, row.live + 4 * 4);
  EXPECT_EQ(row.liveBytes, row.live * 64);
  EXPECT_EQ(row.alignment, 8u);

  AllocTrackTypeInfo* large = nullptr;
  AllocTrackTypeInfo::_trackAllocation(&large, typeid(Large), 4'000'000, 8);
  EXPECT_TRUE(std::ranges::is_sorted(Kiv::allocTrackRows(), std::ranges::greater(),
                                     &AllocTrackRow::liveBytes));
  EXPECT_THAT(Kiv::allocReport(), testing::ContainsRegex("4000000 .*::Large\n"));
  AllocTrackTypeInfo::trackDeallocation(large);
}

#if !defined(__has_feature)
#define __has_feature(feature) 0
#endif

#if defined(OVSLAB_POISON)
TEST(SlabDeathTest, UseAfterFreeAndUseBehindAnObjectAreSeen) {
  auto* const object = static_cast<volatile char*>(OvSlab::slabAlloc(100));
  EXPECT_DEATH(object[104] = 1, "use-after-poison") << "behind it, within its size class";
  OvSlab::slabFree(const_cast<char*>(object), typeid(int));
  EXPECT_DEATH(object[40] = 1, "use-after-poison");
}
#elif !defined(__SANITIZE_THREAD__) && !__has_feature(thread_sanitizer)
TEST(SlabDeathTest, ExhaustedMemoryEndsTheProcessWithSizeAndReason) {
  const auto exhaust = [](unsigned size) {
    const rlimit limit{64 << 20, 64 << 20};
    ASSERT_EQ(::setrlimit(RLIMIT_DATA, &limit), 0);
    while (OvSlab::slabAllocOrStdMalloc(size, SlabAllocationPattern::longLived) != nullptr) {
    }
    OvSlab::slabAlloc(size);
  };
  EXPECT_DEATH(exhaust(1000), "no memory for an object of 1000 bytes: Cannot allocate memory");
  EXPECT_DEATH(exhaust(1 << 20), "no memory for an object of 1048576 bytes");
}
#endif

}  // namespace
