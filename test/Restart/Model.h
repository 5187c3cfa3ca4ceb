#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Restart/Oracle.h"
#include "Support/FamilyMemory.h"

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
  using Version = Support::Version;

  Model(const std::string& directory, std::uint32_t keys) : directory_(directory), keys_(keys) {
    expected_.config.resize(kUnits);
  }

  Version announced() const { return memory().announced; }
  Version reported() const { return reported_; }
  void reportedIs(Version version) { reported_ = version; }

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
    told.ask(Kind::clear, kUnits - first - second);
  }

  void compare(const FamilyPage& told, Moment moment) {
    const Support::Memory seen = memory();
    // Who took over logged what a death had left configured and not logged.
    if (seen.newest() > newest() && !half_.empty()) {
      expected_.takeOver({});
      half_.clear();
    }
    // The counter follows each record; what stands in the log is committed.
    EXPECT_LE(seen.newest(), seen.scratchpad + (moment == Moment::dead ? 1 : 0));
    const auto inFlight = settle(seen.newest(), told);
    if (testing::Test::HasFailure()) return;
    const Version taken = moment == Moment::dead ? told.taken.load() : reported_;
    if (moment != Moment::dead) {
      EXPECT_EQ(inFlight, nullptr);
      EXPECT_EQ(seen.announced, newest());
      EXPECT_EQ(told.pending, newest() != reported_);
      EXPECT_EQ(told.taken, reported_);
    }
    for (std::uint32_t unit = 0; unit < kUnits; ++unit) {
      const auto& config = seen.config[unit];
      for (std::uint32_t key = 0; key < keys_; ++key) {
        const auto found = config.find(key);
        compareEntry(unit, key, found == config.end() ? nullptr : &found->second, moment, taken,
                     moment == Moment::dead ? inFlight : nullptr);
      }
      EXPECT_EQ(config.size(), expected_.config[unit].size()) << "there are other keys";
      if (moment == Moment::up) {
        EXPECT_EQ(told.entrys[unit], std::ranges::count_if(config, isLive));
      }
    }
    compareLog(seen.log, taken);
  }

 private:
  using Record = Support::ConfigRecord;

  Support::Memory memory() const {
    return Support::MemoryReader<Family>(directory_, kUnits).read();
  }
  Version newest() const { return expected_.scratchpad; }
  static bool isLive(const std::pair<const Support::Key, Record>& entry) {
    return !entry.second.isDeleted;
  }

  bool touches(const Operation& operation, std::uint32_t unit, std::uint32_t key) const {
    if (operation.unit != unit) return false;
    if (operation.kind != Kind::clear) return operation.key == key;
    const auto found = expected_.config[unit].find(key);
    return found != expected_.config[unit].end() && isLive(*found);
  }
  /// A unit in which there is nothing is left alone.
  bool happens(const Operation& operation) const {
    if (operation.kind != Kind::clear) return true;
    return std::ranges::any_of(expected_.config[operation.unit], [&](const auto& entry) {
      return isLive(entry) || entry.second.logVersion > reported_;
    });
  }
  void apply(const Operation& operation) {
    std::erase_if(half_, [&](const auto& at) { return touches(operation, at.first, at.second); });
    if (operation.kind == Kind::write) {
      expected_.write(operation.unit, operation.key, operation.value, {});
    } else if (operation.kind == Kind::remove) {
      expected_.remove(operation.unit, operation.key, {});
    } else {
      expected_.removeAll(operation.unit, {});
    }
  }

  /// Takes over what was asked for, up to the newest version that was issued. Returns the operation
  /// behind it: it may have happened in part.
  const Operation* settle(Version issued, const FamilyPage& told) {
    for (; done_ < told.asked; ++done_) {
      const Operation& operation = told.operations[done_];
      if (!happens(operation)) continue;
      if (newest() == issued) {
        EXPECT_EQ(operation.told, 0U) << "it was told of a version that is not there";
        return &operation;
      }
      apply(operation);
      if (operation.told != 0) {
        EXPECT_EQ(operation.told - 1, newest());
      }
    }
    EXPECT_EQ(newest(), issued) << "versions nobody asked for";
    return nullptr;
  }

  void compareEntry(std::uint32_t unit, std::uint32_t key, const Record* actual, Moment moment,
                    Version taken, const Operation* doubtful) {
    auto& config = expected_.config[unit];
    if (doubtful != nullptr && actual != nullptr && touches(*doubtful, unit, key)) {
      const bool isWrite = doubtful->kind == Kind::write;
      const Record done{isWrite ? doubtful->value : actual->value, newest() + 1, !isWrite};
      if (*actual == done) {
        config[key] = done;
        half_.insert({unit, key});
      }
    }
    const auto expected = config.find(key);
    if (expected != config.end() && expected->second.isDeleted) {
      const Version version = expected->second.logVersion;
      const bool mustBeGone =
          version <= taken && (moment == Moment::up || !half_.contains({unit, key}));
      if (mustBeGone || (version <= reported_ && actual == nullptr)) {
        config.erase(expected);
        half_.erase({unit, key});
      }
    }
    const auto text = [](const Record* record) {
      return record == nullptr ? "nothing"
                               : fmt::format("{}@{}{}", record->value, record->logVersion,
                                             record->isDeleted ? ", deleted" : "");
    };
    const auto left = config.find(key);
    EXPECT_EQ(text(actual), text(left == config.end() ? nullptr : &left->second))
        << Family::kTableName << " unit " << unit << " key " << key << "; the newest is "
        << newest() << ", reported " << reported_ << ", taken " << taken;
  }

  /// The log holds every version behind the report, and none that the agent took as reported.
  void compareLog(const std::map<Version, Support::LogRecord>& actual, Version taken) {
    auto& log = expected_.log;
    log.erase(log.begin(), log.upper_bound(taken));
    std::erase_if(log, [&](const auto& record) {
      return record.first <= reported_ && !actual.contains(record.first);
    });
    EXPECT_EQ(actual.size(), log.size());
    EXPECT_TRUE(actual == log) << Family::kTableName << " newest " << newest() << " reported "
                               << reported_ << " taken " << taken;
  }

  const std::string& directory_;
  std::uint32_t keys_;
  Support::Changing expected_;
  /// Entries of which an operation was done half when its agent died: the log does not tell of it.
  std::set<std::pair<std::uint32_t, std::uint32_t>> half_;
  Version reported_ = 0;
  std::uint32_t done_ = 0;
};

}  // namespace RestartTest
