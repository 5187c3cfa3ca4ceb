#include "KivSharedMem/EntityManager.h"

#include <gmock/gmock.h>

#include "OrderedTable/GenId.h"
#include "QuarnBastil/TcamEntryTypes.h"
#include "Stavro/ValueEntity.h"
#include "Support/TempDir.h"

namespace {

using Drift::Directory;
using KivSharedMem::EntityManager;
using testing::HasSubstr;

struct EntityManagerTest : testing::Test {
  const Support::TempDir dir;
  const Fenrik::String directory{dir.path()};
};

TEST_F(EntityManagerTest, AMountThatCannotBeSaysWhatWhereAndWhy) {
  using QuarnBastil::TcamEntryConfigDrift;
  const auto refusal = [](EntityManager& manager, const char* type, const char* attribute,
                          Drift::Word capacity) {
    const auto group = manager.getMountGroup();
    KivDrift::MountInfo info(0);
    info.collectionInfoIs({attribute, capacity, 0});
    group->mount("some/path", type, info);
    try {
      group->doClose();
    } catch (const Drift::MountException& e) {
      return e.msg().str();
    }
    return std::string("mounted");
  };
  EntityManager first("agent", directory, Directory::Access::write);
  EntityManager second("agent", directory, Directory::Access::write);
  const char* const type = TcamEntryConfigDrift::kEntityName.data();
  EXPECT_THAT(refusal(first, "Nobody", "swTableEntries", 1), HasSubstr("\"Nobody\""));
  EXPECT_THAT(refusal(first, type, "entries", 1), HasSubstr("\"swTableEntries\""));
  EXPECT_THAT(refusal(first, type, "swTableEntries", 0), HasSubstr("capacity of 0"));
  EXPECT_TRUE(first.getEntity("some/path") == nullptr);
  EXPECT_EQ(first.findEntities("", KivSharedMem::KivSharedMemType::stored)->entityCount(), 0u)
      << "a refused mount leaves nothing";
  EXPECT_EQ(refusal(first, type, "swTableEntries", 9), "mounted");
  EXPECT_THAT(refusal(second, type, "swTableEntries", 9), HasSubstr("writes it"));
}

TEST_F(EntityManagerTest, OthersSeeAGenerationOfTheStateDatabaseMoveAndCannotMoveIt) {
  using Generation = Stavro::ValueEntity<Asic::GenId>;
  const Fenrik::String path = "hardware/agent/relaunch/config/QuarnBastil";
  const auto managerWith = [&](Directory::Access access) {
    return Fenrik::ptrIsImpl<Stavro::EntityManager>("agent", true, directory, access);
  };
  const auto state = managerWith(Directory::Access::write);
  EXPECT_TRUE(state->getEntity(path) == nullptr);
  const auto generation = state->entityIs<Generation>(path);
  const std::uint32_t before = state->changes();
  const Asic::GenId next(generation->get().majorId() + 1, 0);
  generation->set(next);
  generation->set(next);
  EXPECT_EQ(state->changes(), before + 1) << "an equal value is no change";
  const auto watcher = managerWith(Directory::Access::read);
  const auto seen = Fenrik::dynamicPtrCast<Generation>(watcher->getEntity(path));
  ASSERT_TRUE(seen != nullptr);
  EXPECT_THROW(seen->set(Asic::GenId(7, 7)), Fenrik::Exception);
  EXPECT_EQ(seen->get().majorId(), 1u);
}

}  // namespace
