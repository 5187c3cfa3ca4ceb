#include "KivSharedMem/EntityManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>

#include "Drift/LogFollower.h"
#include "OrderedTable/GenId.h"
#include "QuarnBastil/TcamEntryTypes.h"
#include "QuarnLpmLib/BigBbDataModelTypes.h"
#include "Stavro/ValueEntity.h"

namespace {

using namespace std::chrono_literals;
using Drift::DenseRead;
using Drift::Directory;
using KivSharedMem::EntityManager;
using KivSharedMem::KivSharedMemType;
using QuarnBastil::TcamEntryConfigDrift;
using QuarnBastil::TcamEntryConfigDriftEntry;
using QuarnBastil::TcamEntryEntryKey;
using QuarnBastil::TcamEntryEntryLogDrift;
using QuarnBastil::TcamEntryLogDriftEntry;
using QuarnBastil::TcamEntryLogEntry;

constexpr const char* kLogPath = "TcamEntry/entryLog";
constexpr const char* kConfigPath = "TcamEntry/config/3";

TcamEntryLogDriftEntry logRecord(std::uint64_t version) {
  const TcamEntryLogEntry entry(TcamEntryEntryKey(1, static_cast<std::uint16_t>(version)));
  return {Asic::LogVersion(version), Asic::EntryFlags(0), Asic::UnitId(3), entry};
}

class EntityManagerTest : public testing::Test {
 protected:
  EntityManagerTest() {
    char path[] = "/dev/shm/bastil-test.XXXXXX";
    directory_ = mkdtemp(path);
    managerIs(Directory::Access::write);
  }
  ~EntityManagerTest() override { std::filesystem::remove_all(directory_.str()); }

  /// As a new process would: nothing of the former manager is left.
  void managerIs(Directory::Access access) {
    manager_ = nullptr;
    manager_ = Fenrik::ptrIsImpl<EntityManager>("agent", directory_, access);
  }

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

  /// Runs a piece of the test in a process of its own; the result is its exit status.
  static int inChild(const std::function<bool()>& piece) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(piece() ? 0 : 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  }

  Fenrik::String directory_;
  Fenrik::Ptr<EntityManager> manager_;
};

TEST_F(EntityManagerTest, CollectionsOutliveTheirProcessAndCountOn) {
  auto log = mount<TcamEntryEntryLogDrift>(kLogPath);
  auto config = mount<TcamEntryConfigDrift>(kConfigPath);
  ASSERT_TRUE(log != nullptr && config != nullptr);
  EXPECT_EQ(log->collectionControl()->mountStage(), Drift::MountStage::made);
  EXPECT_EQ(mount<TcamEntryEntryLogDrift>(kLogPath), log) << "what is mounted stays";
  for (std::uint64_t version = 1; version <= 5; ++version) {
    log->entryLogConfigIs(logRecord(version));
    if (version < 5) log->collectionControl()->scratchpadIs(version);
  }
  const TcamEntryConfigDriftEntry record(logRecord(9).logEntry, {}, Asic::LogVersion(4), true);
  config->swTableEntriesIs(record);
  log->entryLogConfigDel(Asic::LogVersion(1));
  log = nullptr;
  config = nullptr;
  managerIs(Directory::Access::write);

  log = mount<TcamEntryEntryLogDrift>(kLogPath);
  config = mount<TcamEntryConfigDrift>(kConfigPath);
  EXPECT_EQ(log->collectionControl()->mountStage(), Drift::MountStage::ok);
  EXPECT_EQ(log->collectionControl()->writerGeneration(), 2u);
  EXPECT_EQ(log->collectionControl()->scratchpad(), 5u) << "what was logged counts";
  EXPECT_EQ(log->map()->driftMapSize(), 4u);
  bool found = false;
  const auto& back = config->map()->driftMapFind(record.logEntry.key, found);
  EXPECT_TRUE(found);
  EXPECT_TRUE(TcamEntryConfigDriftEntry::isEq(&back, &record));
  EXPECT_EQ(foundBelow("TcamEntry/", KivSharedMemType::stored),
            (std::set<std::string>{kConfigPath, kLogPath}));
  manager_->entityDel(kLogPath);
  EXPECT_EQ(foundBelow("TcamEntry/", KivSharedMemType::mounted),
            std::set<std::string>{kConfigPath});
  EXPECT_TRUE(foundBelow("BigBb/", KivSharedMemType::stored).empty());
  config->swTableEntriesDel(record.logEntry.key);
  const auto& gone = config->map()->driftMapFind(record.logEntry.key, found);
  EXPECT_FALSE(found);
  const TcamEntryConfigDriftEntry none;
  EXPECT_TRUE(TcamEntryConfigDriftEntry::isEq(&gone, &none));
}

TEST_F(EntityManagerTest, WalksMeetEveryRecordAndGoOnBehindOneThatWent) {
  const auto config = mount<TcamEntryConfigDrift>(kConfigPath);
  for (std::uint16_t i = 0; i < 100; ++i) {
    config->swTableEntriesIs({logRecord(i).logEntry, {}, Asic::LogVersion(i), false});
  }
  std::set<std::uint64_t> seen;
  TcamEntryConfigDrift::Map::Cursor cursor;
  for (bool more = config->map()->driftMapIterBegin(cursor); more;) {
    EXPECT_TRUE(seen.insert(cursor.record.logVersion.value()).second);
    const TcamEntryEntryKey key = cursor.record.logEntry.key;
    config->swTableEntriesDel(key);
    if (seen.size() % 2 == 0) cursor.hint = 0;
    more = config->map()->driftMapIterNext(key, cursor);
  }
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_EQ(config->map()->driftMapSize(), 0u);
  EXPECT_FALSE(config->map()->driftMapIterBegin(cursor));
}

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
  EXPECT_NE(refusal("Nobody", "swTableEntries", 1).find("\"Nobody\""), std::string::npos);
  EXPECT_NE(refusal(type, "entries", 1).find("\"swTableEntries\""), std::string::npos);
  EXPECT_NE(refusal(type, "swTableEntries", 0).find("capacity of 0"), std::string::npos);
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

TEST_F(EntityManagerTest, AWipedCollectionSaysSoOnceAndCountsOn) {
  mount<TcamEntryEntryLogDrift>(kLogPath)->collectionControl()->scratchpadIs(41);
  managerIs(Directory::Access::write);
  const std::string file = manager_->directory().pathOf(kLogPath);
  const int fd = ::open(file.c_str(), O_WRONLY);
  ASSERT_EQ(::pwrite(fd, "xxxx", 4, 8), 4);
  ::close(fd);
  auto log = mount<TcamEntryEntryLogDrift>(kLogPath);
  EXPECT_TRUE(log->collectionControl()->wiped());
  EXPECT_EQ(log->collectionControl()->mountStage(), Drift::MountStage::rebuilt);
  EXPECT_NE(log->collectionControl()->mountReason().view().find(file), std::string_view::npos);
  EXPECT_EQ(log->collectionControl()->scratchpad(), 41u);
  log->collectionControl()->clearWiped();
  log = nullptr;
  managerIs(Directory::Access::write);
  EXPECT_FALSE(mount<TcamEntryEntryLogDrift>(kLogPath)->collectionControl()->wiped());
}

TEST_F(EntityManagerTest, DamageIsNotedWithItsCollection) {
  const auto config = mount<TcamEntryConfigDrift>(kConfigPath);
  config->swTableEntriesIs({logRecord(1).logEntry, {}, Asic::LogVersion(1), false});
  const int fd = ::open(manager_->directory().pathOf(kConfigPath).c_str(), O_RDWR);
  const auto at = static_cast<off_t>(config->file().header().slotsOffset + 100);
  char byte = 0;
  ASSERT_EQ(::pread(fd, &byte, 1, at), 1);
  byte = static_cast<char>(byte ^ 4);
  ASSERT_EQ(::pwrite(fd, &byte, 1, at), 1);
  ::close(fd);
  bool found = true;
  try {
    config->map()->driftMapFind(logRecord(1).logEntry.key, found);
    FAIL() << "damage was given out as good";
  } catch (const Fenrik::CorruptionDetectedException& e) {
    config->map()->doCorruptionDetected(e.msg());
  }
  const auto noted = config->map()->corruption();
  EXPECT_EQ(noted.count, 1u);
  EXPECT_NE(noted.collection.view().find("TcamEntry"), std::string_view::npos);
  EXPECT_NE(noted.lastMessage.view().find("slot 0"), std::string_view::npos);
  config->swTableEntriesIs({logRecord(1).logEntry, {}, Asic::LogVersion(2), false});
  EXPECT_EQ(config->map()->driftMapFind(logRecord(1).logEntry.key, found).logVersion.value(), 2u);
}

TEST_F(EntityManagerTest, AReaderInAnotherProcessFollowsAndSleepsAtTheDoorbell) {
  const auto log = mount<TcamEntryEntryLogDrift>(kLogPath);
  log->entryLogConfigIs(logRecord(1));
  log->entryLogConfigIs(logRecord(2));
  log->entryLogConfigDel(Asic::LogVersion(1));
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const auto manager =
        Fenrik::ptrIsImpl<EntityManager>("reader", directory_, Directory::Access::read);
    const auto entity = mountOn<TcamEntryEntryLogDrift>(*manager, kLogPath, 1000);
    Drift::LogFollower<TcamEntryLogDriftEntry> follower(entity->file(), 1);
    TcamEntryLogDriftEntry record;
    bool good = follower.read(record) == DenseRead::gone;
    follower.skip();
    good = good && follower.read(record) == DenseRead::found && record.version.value() == 2;
    good = good && follower.read(record) == DenseRead::notYet && !follower.wait(1ms);
    if (::write(ready[1], "r", 1) != 1) ::_exit(2);
    good = good && follower.wait(10s) && follower.read(record) == DenseRead::found;
    ::_exit(good && record.version.value() == 3 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  log->entryLogConfigIs(logRecord(3));
  log->ring();
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(EntityManagerTest, TheManagerOfANameIsThisProcesssOwnOrTheMachines) {
  EXPECT_EQ(EntityManager::getEntityManager("agent", true), manager_);
  const Fenrik::String name = "bastil-test-machine";
  const auto machine = EntityManager::getEntityManager(name, false);
  EXPECT_EQ(machine->directory().path(), "/dev/shm/bastil-test-machine");
  EXPECT_EQ(EntityManager::getEntityManager(name, false), machine);
  std::filesystem::remove_all(machine->directory().path());
}

TEST_F(EntityManagerTest, AnotherProcessSeesAGenerationOfTheStateDatabaseMove) {
  using Generation = Stavro::ValueEntity<Asic::GenId>;
  const Fenrik::String path = "hardware/agent/relaunch/config/QuarnBastil";
  auto state =
      Fenrik::ptrIsImpl<Stavro::EntityManager>("agent", true, directory_, Directory::Access::write);
  EXPECT_TRUE(state->getEntity(path) == nullptr);
  auto generation = state->entityIs<Generation>(path);
  EXPECT_EQ(state->getEntity(path), generation);
  const std::uint32_t before = state->changes();
  Asic::GenId next = generation->get();
  next.majorIdInc(1);
  generation->set(next);
  generation->set(next);
  EXPECT_EQ(state->changes(), before + 1) << "an equal value is no change";
  const auto seenBy = [&] {
    const auto watcher = Fenrik::ptrIsImpl<Stavro::EntityManager>("watcher", true, directory_,
                                                                  Directory::Access::read);
    const auto seen = Fenrik::dynamicPtrCast<Generation>(watcher->getEntity(path));
    if (seen == nullptr || seen->get().majorId() != 1) return false;
    try {
      seen->set(Asic::GenId(7, 7));
      return false;
    } catch (const Fenrik::Exception&) {
      return seen->get().majorId() == 1;
    }
  };
  EXPECT_EQ(inChild(seenBy), 0);
  generation = nullptr;
  state = nullptr;
  EXPECT_EQ(inChild(seenBy), 0) << "it outlives its process";
}

}  // namespace
