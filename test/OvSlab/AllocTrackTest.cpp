#include <gmock/gmock.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "Fenrik/NodeClass.h"
#include "OvSlab/AllocReport.h"
#include "OvSlab/AllocTrackTypeInfo.h"

namespace {

using Kiv::AllocTrackRow;
using Kiv::AllocTrackTypeInfo;

struct Large {};
struct Shared {};

AllocTrackRow rowOf(const std::string& name) {
  const std::vector<AllocTrackRow> rows = Kiv::allocTrackRows();
  const auto found = std::ranges::find_if(
      rows, [&](const AllocTrackRow& row) { return row.typeName.ends_with(name); });
  return found == rows.end() ? AllocTrackRow{} : *found;
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

}  // namespace
