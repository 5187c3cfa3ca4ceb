#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KivSharedMem/EntityManager.h"
#include "Restart/Oracle.h"

namespace RestartTest {

/// When a comparison is made: after a kill, with the agent up and idle, or with everything
/// acknowledged.
enum class Moment { dead, up, drained };

/// What the collections of one family must hold, from what its agents told; read with the eyes of
/// another process.
template <class Family>
class Model {
 public:
  using Kind = Operation::Kind;
  using Version = std::uint64_t;

  Model(const std::string& directory, std::uint32_t keys) : directory_(directory) {
    for (auto& unit : entries_) unit.resize(keys);
  }

  Version announced() const { return View(directory_).log()->collectionControl()->announced(); }
  Version version() const { return version_; }
  Version reported() const { return reported_; }
  void reportedIs(Version version) { reported_ = version; }

  /// Whether there is a collection of that unit.
  bool has(std::uint32_t unit) const { return View(directory_).config(unit) != nullptr; }

  /// What an agent that is about to start will clear.
  void plan(const Page& page, FamilyPage& told) {
    done_ = 0;
    told.asked = 0;
    told.taken = 0;
    for (auto& entrys : told.entrys) entrys = 0;
    const auto& [first, second] = page.units;
    if (page.reset) {
      told.ask(Kind::clear, first);
      told.ask(Kind::clear, second);
    }
    const std::uint32_t other = kUnits - first - second;
    if (has(other)) told.ask(Kind::clear, other);
  }

  void compare(const FamilyPage& told, Moment moment) {
    const View view(directory_);
    if (view.log() == nullptr) {
      EXPECT_EQ(version_, 0U);
      return;
    }
    const Log log = logOf(view);
    // The counter follows each record; what stands in the log is committed.
    const Version counted = view.log()->collectionControl()->scratchpad();
    const Version newest = log.empty() ? counted : std::max(counted, log.rbegin()->first);
    EXPECT_LE(newest, counted + (moment == Moment::dead ? 1 : 0));
    const auto inFlight = settle(newest, told);
    if (testing::Test::HasFailure()) return;
    const Version taken = moment == Moment::dead ? told.taken.load() : reported_;
    const Operation* const doubtful = moment == Moment::dead ? inFlight : nullptr;
    if (moment != Moment::dead) {
      EXPECT_EQ(inFlight, nullptr);
      EXPECT_EQ(view.log()->collectionControl()->announced(), version_);
      EXPECT_EQ(told.pending, version_ != reported_);
      EXPECT_EQ(told.taken, reported_);
    }
    for (std::uint32_t unit = 0; unit < kUnits; ++unit) {
      const std::uint32_t live = compareUnit(view, unit, moment, taken, doubtful);
      if (moment == Moment::up) {
        EXPECT_EQ(told.entrys[unit], live);
      }
    }
    compareLog(log, taken);
  }

 private:
  enum class State { absent, live, deleted };
  struct Expected {
    State state = State::absent;
    Version version = 0;
    std::uint32_t value = 0;
    /// Done half when its agent died: the log does not tell of it.
    bool half = false;
  };

  /// The family's collections, mounted for reading.
  class View {
   public:
    explicit View(const std::string& directory)
        : manager_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(
              "reader", Fenrik::String(directory), Drift::Directory::Access::read)) {
      log_ = mount<typename Family::EntryLogDrift>(Family::Constants::tableEntryLogDriftPath(),
                                                   Family::kLogCapacity);
      for (std::uint16_t unit = 0; unit < kUnits; ++unit) {
        configs_[unit] = mount<typename Family::ConfigDrift>(
            Family::Constants::configDriftPath(Asic::UnitId(unit)), Family::kConfigCapacity);
      }
    }
    const auto& log() const { return log_; }
    const auto& config(std::uint32_t unit) const { return configs_[unit]; }

   private:
    template <class Collection>
    Fenrik::Ptr<Collection> mount(const Fenrik::String& path, Drift::Word capacity) {
      if (manager_->findEntities(path, KivSharedMem::KivSharedMemType::stored)->entityCount() == 0)
        return nullptr;
      KivDrift::MountInfo info(0);
      info.collectionInfoIs({Fenrik::String(Collection::kAttributeName), capacity, 0});
      const auto group = manager_->getMountGroup();
      group->mount(path, Fenrik::String(Collection::kEntityName), info);
      group->doClose();
      return Fenrik::dynamicPtrCast<Collection>(manager_->getEntity(path));
    }

    Fenrik::Ptr<KivSharedMem::EntityManager> manager_;
    Fenrik::Ptr<typename Family::EntryLogDrift> log_;
    std::array<Fenrik::Ptr<typename Family::ConfigDrift>, kUnits> configs_;
  };

  struct Logged {
    Kind kind;
    std::uint32_t unit, key, value;
    friend bool operator==(const Logged&, const Logged&) = default;
  };
  using Log = std::map<Version, Logged>;

  static Expected after(const Operation& operation, Version version) {
    if (operation.kind == Kind::write) return {State::live, version, operation.value};
    return {State::deleted, version, 0};
  }
  bool touches(const Operation& operation, std::uint32_t unit, std::uint32_t key) const {
    if (operation.unit != unit) return false;
    if (operation.kind != Kind::clear) return operation.key == key;
    return entries_[unit][key].state == State::live;
  }
  /// A unit in which there is nothing is left alone.
  bool happens(const Operation& operation) const {
    if (operation.kind != Kind::clear) return true;
    return std::ranges::any_of(entries_[operation.unit], [&](const Expected& entry) {
      return entry.state == State::live ||
             (entry.state == State::deleted && entry.version > reported_);
    });
  }
  void apply(const Operation& operation) {
    ++version_;
    auto& unit = entries_[operation.unit];
    if (operation.kind != Kind::clear) {
      unit[operation.key] = after(operation, version_);
    } else {
      for (std::uint32_t key = 0; key < unit.size(); ++key) {
        if (unit[key].state == State::live) unit[key] = after(operation, version_);
      }
    }
    log_[version_] = {operation.kind, operation.unit, operation.key, operation.value};
  }

  /// Takes over what was asked for, up to the newest version that was issued. Returns the operation
  /// behind it: it may have happened in part.
  const Operation* settle(Version newest, const FamilyPage& told) {
    for (; done_ < told.asked; ++done_) {
      const Operation& operation = told.operations[done_];
      if (!happens(operation)) continue;
      if (version_ == newest) {
        EXPECT_EQ(operation.told, 0U) << "it was told of a version that is not there";
        return &operation;
      }
      apply(operation);
      if (operation.told != 0) {
        EXPECT_EQ(operation.told - 1, version_);
      }
    }
    EXPECT_EQ(version_, newest) << "versions nobody asked for";
    return nullptr;
  }

  std::uint32_t compareUnit(const View& view, std::uint32_t unit, Moment moment, Version taken,
                            const Operation* doubtful) {
    std::vector<Expected> actual(entries_[unit].size());
    if (view.config(unit) != nullptr) {
      typename Family::ConfigDrift::Map::Cursor cursor;
      const auto& map = *view.config(unit)->map();
      for (bool more = map.driftMapIterBegin(cursor); more;) {
        const auto& record = cursor.record;
        actual.at(Family::numberOf(record.logEntry.key)) = {
            record.isDeleted ? State::deleted : State::live, record.logVersion.value(),
            Family::valueOf(record.logEntry)};
        more = map.driftMapIterNext(record.logEntry.key, cursor);
      }
    }
    std::uint32_t live = 0;
    for (std::uint32_t key = 0; key < actual.size(); ++key) {
      Expected& expected = entries_[unit][key];
      if (doubtful != nullptr && touches(*doubtful, unit, key)) {
        Expected done = after(*doubtful, version_ + 1);
        done.half = true;
        if (same(actual[key], done)) expected = done;
      }
      const bool acknowledged = expected.state == State::deleted && expected.version <= taken;
      const bool maybeGone = expected.state == State::deleted && expected.version <= reported_;
      const bool mustBeGone = acknowledged && (moment == Moment::up || !expected.half);
      if (mustBeGone || (maybeGone && actual[key].state == State::absent)) expected = {};
      EXPECT_TRUE(same(actual[key], expected))
          << Family::kTableName << " unit " << unit << " key " << key << " is "
          << static_cast<int>(actual[key].state) << " of version " << actual[key].version
          << ", not " << static_cast<int>(expected.state) << " of " << expected.version
          << "; the newest is " << version_ << ", reported " << reported_ << ", taken " << taken;
      live += actual[key].state == State::live ? 1 : 0;
    }
    return live;
  }
  static bool same(const Expected& a, const Expected& b) {
    return a.state == b.state && a.version == b.version &&
           (a.state != State::live || a.value == b.value);
  }

  static Log logOf(const View& view) {
    Log actual;
    typename Family::EntryLogDrift::Map::Cursor cursor;
    const auto& map = *view.log()->map();
    for (bool more = map.driftMapIterBegin(cursor); more;) {
      const auto& record = cursor.record;
      const Kind kind = record.flags.isTableDeleted()   ? Kind::clear
                        : record.flags.isEntryDeleted() ? Kind::remove
                                                        : Kind::write;
      const bool ofKey = kind != Kind::clear;
      actual[record.version.value()] = {kind, record.unitId.value(),
                                        ofKey ? Family::numberOf(record.logEntry.key) : 0,
                                        kind == Kind::write ? Family::valueOf(record.logEntry) : 0};
      more = map.driftMapIterNext(record.version, cursor);
    }
    return actual;
  }

  /// The log holds every version behind the report, and none that the agent took as reported.
  void compareLog(const Log& actual, Version taken) {
    log_.erase(log_.begin(), log_.upper_bound(taken));
    for (auto it = log_.begin(); it != log_.end() && it->first <= reported_;) {
      it = actual.contains(it->first) ? std::next(it) : log_.erase(it);
    }
    EXPECT_EQ(actual.size(), log_.size());
    EXPECT_TRUE(actual == log_) << Family::kTableName << " newest " << version_ << " reported "
                                << reported_ << " taken " << taken;
  }

  const std::string& directory_;
  std::array<std::vector<Expected>, kUnits> entries_;
  Log log_;
  Version version_ = 0;
  Version reported_ = 0;
  std::uint32_t done_ = 0;
};

}  // namespace RestartTest
