#include <gtest/gtest.h>
#include <malloc.h>

#include <iostream>

#include "OvSlab/SlabStats.h"
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

using Action = QuarnBastil::TcamActionFamily;
using ResourceKey = QuarnL3NiLib::ReqIdToFecResourceTableEntryKey;

/// A table with a hardware that follows at once.
template <class Family>
struct Table {
  static constexpr unsigned kBatch = 100;

  static auto key(unsigned number) { return Support::Numbers<Family>::key(number); }
  /// `resource` 0 is none.
  void write(unsigned number, unsigned resource) {
    typename Family::Entry entry(key(number));
    if constexpr (requires { entry.requestId; }) entry.requestId = ResourceKey(resource);
    table->entryWriteWithResponseHandler(key(number), entry, nullptr, handler);
    table->entryHas(key(number));
  }
  void follow() {
    while (agent.tables().pump(1000).more) {
    }
    hardware.report(Family::kTableId, rig.log()->tableVersion().value());
    agent.tables().pump(kBatch);
  }

  const Support::TempDir dir;
  Support::AgentRig agent{dir.path()};
  Support::TableRig<Family> rig{agent};
  const Fenrik::Ptr<typename Family::SwTable> table = rig.table(0);
  Support::ReporterRig hardware{dir.path(), Family::Constants::canonicalGroupName()};
  std::uint64_t done = 0;
  const Asic::ResponseHandler handler = [this](const auto&) { ++done; };
};

/// Allocations from the general heap in 10,000 whole lives of a write over entries that are there,
/// each hundredth with a change of the resource that all of them use, if they use one.
template <class Family>
std::uint64_t allocationsOf(unsigned resource = 0) {
  constexpr unsigned kKeys = 1000;
  Table<Family> with;
  const auto batches = [&](unsigned count) {
    for (unsigned batch = 0; batch < count; ++batch) {
      if (resource != 0) {
        with.agent.resources().valueIs(ResourceKey(resource), 1 + batch % 2, nullptr);
      }
      for (unsigned i = 0; i < with.kBatch; ++i) {
        with.write((batch * with.kBatch + i) % kKeys, resource);
      }
      with.follow();
      if (resource == 0) continue;
      with.table->entryRemove(with.key(batch % kKeys), nullptr);
      with.follow();
    }
  };
  batches(500);
  const std::uint64_t before = allocations;
  const std::uint64_t doneBefore = with.done;
  batches(100);
  EXPECT_EQ(with.done - doneBefore, 100u * with.kBatch);
  return allocations - before;
}

TEST(Heap, GivesAWriteNothing) {
  EXPECT_EQ(allocationsOf<QuarnBastil::TcamEntryFamily>(), 0u);
  EXPECT_EQ(allocationsOf<QuarnBastil::BigBbFamily>(), 0u);
}
TEST(Heap, GivesAFlipNothing) { EXPECT_EQ(allocationsOf<Action>(7), 0u); }

/// Bytes on the slab and the general heap, of 40,000 entries on so many resources.
constexpr unsigned kEntries = 40'000;
double bytesOf(unsigned resources) {
  Table<Action> with;
  for (unsigned id = 1; id <= resources; ++id) {
    with.agent.resources().valueIs(ResourceKey(id), id, nullptr);
  }
  for (unsigned number = 0; number < kEntries; ++number) {
    with.write(number, resources == 0 ? 0 : 1 + number % resources);
    if (number % with.kBatch == 0) with.follow();
  }
  with.follow();
  auto bytes = static_cast<double>(::mallinfo2().uordblks + ::mallinfo2().hblkhd);
  for (const OvSlab::SlabClassStats& row : OvSlab::stats().classes) {
    bytes += static_cast<double>(row.objectSize) * static_cast<double>(row.objectsLive);
  }
  return bytes / kEntries;
}

TEST(Heap, HoldsLittleForAUserAndAResource) {
  constexpr unsigned kMany = 4000;
  const double none = bytesOf(0), one = bytesOf(1), many = bytesOf(kMany);
  const double user = one - none, resource = (many - one) * kEntries / (kMany - 1);
  std::cout << user << " bytes a user, " << resource << " a resource\n";
  EXPECT_LE(user, 40);
  // With its handle, the two accounts of its use, and the map of its users.
  EXPECT_LE(resource, 700);
}

}  // namespace
