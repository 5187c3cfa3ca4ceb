#include "OvSlab/AllocTrackTypeInfo.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <typeindex>
#include <unordered_map>

#include "Fenrik/ForkGuard.h"
#include "OvSlab/AllocReport.h"
#include "OvSlab/TypeName.h"

namespace Kiv {
namespace {

/// All records by class. Never destroyed, because static objects are tracked too.
struct Registry {
  std::mutex mutex;
  std::unordered_map<std::type_index, AllocTrackTypeInfo*> records;
};

Registry& registry() {
  static Registry& all = *new Registry;
  return all;
}

/// Held while a peak and the limit derived from it change. New peaks are rare, reports rarer.
constinit std::mutex peakMutex;

const Fenrik::ForkGuard forkGuard(
    Fenrik::ForkOrder::trackers,
    [] {
      registry().mutex.lock();
      peakMutex.lock();
    },
    [] {
      peakMutex.unlock();
      registry().mutex.unlock();
    },
    [] {
      peakMutex.unlock();
      registry().mutex.unlock();
    });

}  // namespace

AllocTrackTypeInfo& AllocTrackTypeInfo::makeRecord(AllocTrackTypeInfo** tracker,
                                                   const std::type_info& type, unsigned size,
                                                   unsigned alignment) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  AllocTrackTypeInfo*& info = all.records[type];
  if (info == nullptr) {
    info = new AllocTrackTypeInfo(::strdup(OvSlab::Impl::typeName(type).c_str()), size, alignment);
  }
  std::atomic_ref(*tracker).store(info, std::memory_order_release);
  return *info;
}

void AllocTrackTypeInfo::madeIncShared(Count count) noexcept {
  const std::atomic_ref made(made_);
  const std::atomic_ref limit(madeLimit_);
  if (made.fetch_add(count) + count <= limit.load()) return;
  const std::lock_guard lock(peakMutex);
  const Count madeNow = made.load();
  const Count limitNow = limit.load();
  if (madeNow <= limitNow) return;
  std::atomic_ref(peak_).fetch_add(madeNow - limitNow);
  limit.fetch_add(madeNow - limitNow);
}

void AllocTrackTypeInfo::goneIncShared(Count count) noexcept {
  std::atomic_ref(madeLimit_).fetch_add(count);
}

/// Reads `gone` before `made`, so that `gone` never exceeds `made`.
AllocTrackRow AllocTrackTypeInfo::row() const {
  const auto read = [](const Count& count) {
    return std::atomic_ref(const_cast<Count&>(count)).load();
  };
  const std::lock_guard lock(peakMutex);
  const Count peak = read(peak_);
  const Count gone = read(madeLimit_) - peak;
  const Count made = read(made_);
  const Count live = made - gone;
  return {typeName_, size_,         alignment_,  live, std::max(live, peak),
          made,      read(arrays_), live * size_};
}

unsigned long long AllocTrackTypeInfo::liveCount() const { return row().live; }

std::vector<AllocTrackRow> allocTrackRows() {
  std::vector<AllocTrackRow> rows;
  {
    Registry& all = registry();
    const std::lock_guard lock(all.mutex);
    for (const auto& [type, info] : all.records) rows.push_back(info->row());
  }
  std::ranges::sort(rows, [](const AllocTrackRow& a, const AllocTrackRow& b) {
    return a.liveBytes != b.liveBytes ? a.liveBytes > b.liveBytes : a.typeName < b.typeName;
  });
  return rows;
}

}  // namespace Kiv
