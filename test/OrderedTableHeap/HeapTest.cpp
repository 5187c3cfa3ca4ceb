#include <gtest/gtest.h>

#include "Support/FamilyMemory.h"
#include "Support/TableRig.h"
#include "Support/TempDir.h"

namespace {

std::uint64_t allocations = 0;

}  // namespace

// Stands in for the C library's: what the table asks of the general heap is counted.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);
extern "C" void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size) {
  ++allocations;
  return __libc_memalign(alignment, size);
}

namespace {

/// Allocations from the general heap in 10,000 whole lives of a write over entries that are there.
template <class Family>
std::uint64_t allocationsOf() {
  constexpr unsigned kKeys = 1000;
  constexpr unsigned kBatch = 100;
  const Support::TempDir dir;
  Support::AgentRig agent(dir.path());
  Support::TableRig<Family> rig(agent);
  const auto table = rig.table(0);
  Support::ReporterRig hardware(dir.path(), Family::Constants::canonicalGroupName());
  std::uint64_t done = 0;
  const Asic::ResponseHandler handler = [&done](const auto&) { ++done; };
  const auto batches = [&](unsigned count) {
    for (unsigned batch = 0; batch < count; ++batch) {
      for (unsigned i = 0; i < kBatch; ++i) {
        const auto key = Support::Numbers<Family>::key((batch * kBatch + i) % kKeys);
        table->entryWriteWithResponseHandler(key, typename Family::Entry(key), nullptr, handler);
        table->entryHas(key);
      }
      agent.tables().pump(kBatch);
      hardware.report(Family::kTableId, rig.log()->tableVersion().value());
      agent.tables().pump(kBatch);
    }
  };
  batches(500);
  const std::uint64_t before = allocations;
  const std::uint64_t doneBefore = done;
  batches(100);
  EXPECT_EQ(done - doneBefore, 100u * kBatch);
  return allocations - before;
}

TEST(Heap, GivesAWriteNothing) {
  EXPECT_EQ(allocationsOf<QuarnBastil::TcamEntryFamily>(), 0u);
  EXPECT_EQ(allocationsOf<QuarnBastil::BigBbFamily>(), 0u);
}

}  // namespace
