#include "KivSharedMem/EntityManager.h"

#include <gmock/gmock.h>

#include <set>

#include "OrderedTable/GenId.h"
#include "QuarnBastil/TcamEntryTypes.h"
#include "Stavro/ValueEntity.h"
#include "Support/TempDir.h"

namespace {

using Drift::Directory;
using KivSharedMem::EntityManager;
using KivSharedMem::KivSharedMemType;
using QuarnBastil::TcamEntryConfigDrift;
using QuarnBastil::TcamEntryEntryLogDrift;
using testing::HasSubstr;

constexpr const char* kLogPath = "TcamEntry/entryLog";
constexpr const char* kConfigPath = "TcamEntry/config/3";

class EntityManagerTest : public testing::Test {
 protected:
  template <class T>
  Fenrik::Ptr<T> mount(const char* path, Drift::Word capacity = 1000) {
    return mountOn<T>(*manager_, path, capacity);
  }

  template <class T>
  static Fenrik::Ptr<T> mountOn(EntityManager& manager, const char* path, Drift::Word capacity) {
    const auto group = manager.getMountGroup();
    KivDrift::MountInfo info(0);
    info.collectionInfoIs({Fenrik::String(T::kAttributeName), capacity, 0});
    group->mount(path, Fenrik::String(T::kEntityName), info);
    group->doClose();
    return Fenrik::dynamicPtrCast<T>(manager.getEntity(path));
  }

  std::set<std::string> foundBelow(const char* path, KivSharedMemType type) const {
    const auto found = manager_->findEntities(path, type);
    std::set<std::string> paths;
    for (const auto& node : found->paths()) paths.insert(node.value().str());
    EXPECT_EQ(paths.size(), found->entityCount());
    return paths;
  }

  Support::TempDir dir_;
  const Fenrik::String directory_{dir_.path()};
  Fenrik::Ptr<EntityManager> manager_ =
      Fenrik::ptrIsImpl<EntityManager>("agent", directory_, Directory::Access::write);
};

TEST_F(EntityManagerTest, AMountThatCannotBeSaysWhatWhereAndWhy) {
  const auto refusal = [&](const char* type, const char* attribute, Drift::Word capacity) {
    const auto group = manager_->getMountGroup();
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
  const char* const type = "QuarnBastil::TcamEntryConfigDrift";
  EXPECT_THAT(refusal("Nobody", "swTableEntries", 1), HasSubstr("\"Nobody\""));
  EXPECT_THAT(refusal(type, "entries", 1), HasSubstr("\"swTableEntries\""));
  EXPECT_THAT(refusal(type, "swTableEntries", 0), HasSubstr("capacity of 0"));
  EXPECT_TRUE(manager_->getEntity("some/path") == nullptr);
  EXPECT_EQ(manager_->findEntities("", KivSharedMemType::stored)->entityCount(), 0u)
      << "a refused mount leaves nothing";

  const auto held = mount<TcamEntryConfigDrift>(kConfigPath);
  const auto other =
      Fenrik::ptrIsImpl<EntityManager>("agent", directory_, Directory::Access::write);
  try {
    mountOn<TcamEntryConfigDrift>(*other, kConfigPath, 1000);
    FAIL() << "a second writer got in";
  } catch (const Drift::MountException& e) {
    EXPECT_EQ(e.stage(), Drift::MountStage::busy);
  }
}

TEST_F(EntityManagerTest, OthersSeeAGenerationOfTheStateDatabaseMoveAndCannotMoveIt) {
  using Generation = Stavro::ValueEntity<Asic::GenId>;
  const Fenrik::String path = "hardware/agent/relaunch/config/QuarnBastil";
  const auto managerWith = [&](Directory::Access access) {
    return Fenrik::ptrIsImpl<Stavro::EntityManager>("agent", true, directory_, access);
  };
  const auto state = managerWith(Directory::Access::write);
  EXPECT_TRUE(state->getEntity(path) == nullptr);
  const auto generation = state->entityIs<Generation>(path);
  const std::uint32_t before = state->changes();
  Asic::GenId next = generation->get();
  next.majorIdInc(1);
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
