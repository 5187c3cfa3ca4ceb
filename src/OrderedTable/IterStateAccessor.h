#pragma once

#include "Fenrik/Assert.h"
#include "Kiv/Trace.h"
#include "OrderedTable/CorruptionGuard.h"
#include "OrderedTable/SwTableIteratorState.h"

namespace Asic {

/// The generic steps of an iteration. Nothing positional is kept between two steps but a key, so
/// that whatever happens to the table in between is harmless.
template <class State, class Table>
class IterStateAccessor {
 public:
  using Types = typename Table::Types;
  using Key = typename Types::Key;
  using Entry = typename Types::Entry;

  explicit IterStateAccessor(State* iterState) noexcept : iterState_(iterState) {}

  static Fenrik::Ptr<State> initIterState(const Table* table) {
    if (table == nullptr) return nullptr;
    auto state = makeState(*table);
    state->stateIs(state->state().withInAddColl(true));
    return state;
  }

  static Fenrik::Ptr<State> initIterState(const Table* table, const Key& key) {
    if (table == nullptr) return nullptr;
    auto state = makeState(*table);
    state->bookmarkKeyIs(key);
    auto flags = state->state().withHasBookmark(true);
    if (table->transientAddEntryHas(key)) {
      flags = flags.withInAddColl(true);
    } else if (!flags.removeAllPending() && table->entryLog()->entryHas(key, table->unitId())) {
      flags = flags.withInTblCfg(true);
    }
    state->stateIs(flags);
    return state;
  }

  /// One step: the next entry, or a default one at the end.
  Entry maybeUpdateCurrentEntry() {
    KIV_TRACE(_defaultTraceHandle(), 8, "", "");
    Entry result{Key()};
    if (iterState_->state().inAddColl() && stepInAddColl(result)) return result;
    if (iterState_->state().inTblCfg() && stepInTblCfg(result)) return result;
    KIV_TRACE(_defaultTraceHandle(), 9, "", "  no more entries");
    iterState_->stateIs(
        iterState_->state().withHasCurrent(false).withInAddColl(false).withInTblCfg(false));
    return result;
  }

 private:
  using Record = typename Types::ConfigDriftEntry;
  using Cursor = typename Drift::DriftMap<Record>::Cursor;

  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& _defaultTraceHandle() {
    static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle, "SwTableIter");
    return handle;
  }

  /// The parts of a step trace under its name.
  static constexpr const char* kStep = "maybeUpdateCurrentEntry";

  static Fenrik::Ptr<State> makeState(const Table& table) {
    auto state = Fenrik::ptrIsImpl<State>();
    state->swTableIs(&table);
    state->stateIs(state->state().withRemoveAllPending(table.transientRemoveAllVersion().valid()));
    return state;
  }

  const Table& table() const noexcept { return *iterState_->swTable(); }

  /// True if it gave an entry; false if the transient adds are used up.
  bool stepInAddColl(Entry& result) {
    FENRIK_ASSERT_TEXT(!iterState_->state().inTblCfg(), "!iterState_->state().inTblCfg()");
    auto it = iterState_->state().hasBookmark()
                  ? table().transientAddEntryIteratorFromKey(iterState_->bookmarkKey())
                  : table().transientAddEntryIterator();
    KIV_TRACE_AS(kStep, _defaultTraceHandle(), 9, "", "  in transientAdd collection");
    const auto leave = [this] {
      // Under the name of this function. NOLINTNEXTLINE(bugprone-lambda-function-name)
      KIV_TRACE(_defaultTraceHandle(), 9, "", "  done with transAdd");
      const auto flags = iterState_->state().withInAddColl(false);
      iterState_->stateIs(flags.removeAllPending() ? flags : flags.withInTblCfg(true));
    };
    if (!it) {
      leave();
      if (iterState_->state().inTblCfg()) {
        FENRIK_ASSERT_TEXT(!iterState_->state().inAddColl(), "!iterState_->state().inAddColl()");
      }
      return false;
    }
    iterState_->stateIs(iterState_->state().withHasCurrent(true));
    KIV_TRACE_AS(kStep, _defaultTraceHandle(), 9, "", "  found entry: {}", it.key());
    result = it->value()->entry();
    ++it;
    if (!it) {
      iterState_->stateIs(iterState_->state().withHasBookmark(false));
      leave();
    } else {
      bookmark(it.key());
    }
    return true;
  }

  /// True if it gave an entry; false at the end of the configured collection.
  bool stepInTblCfg(Entry& result) {
    KIV_TRACE_AS(kStep, _defaultTraceHandle(), 9, "", "  in cfgDrift collection");
    const auto entryLog = table().entryLog();
    const auto config = entryLog->tableConfigDrift(table().unitId());
    auto& map = *config->map();
    Cursor cursor;
    if (!firstCandidate(map, cursor)) return false;
    while (hidden(cursor.record)) {
      if (!nextRecord(map, cursor)) return false;
    }
    const Key key = cursor.record.logEntry.key;
    iterState_->stateIs(iterState_->state().withHasCurrent(true));
    result = Entry(cursor.record.logEntry, cursor.record.rsrcKeys);
    KIV_TRACE_AS(kStep, _defaultTraceHandle(), 9, "", "  found entry: {}", key);
    if (nextRecord(map, cursor)) {
      bookmark(cursor.record.logEntry.key);
    } else {
      KIV_TRACE_AS(kStep, _defaultTraceHandle(), 9, "", "  done with cfgDrift");
      iterState_->stateIs(iterState_->state().withHasBookmark(false).withInTblCfg(false));
    }
    return true;
  }

  /// The record of the bookmark, or the one behind it if it has gone.
  bool firstCandidate(Drift::DriftMap<Record>& map, Cursor& cursor) {
    return guardedRead(
        map,
        [&] {
          if (!iterState_->state().hasBookmark()) return map.driftMapIterBegin(cursor);
          const Key key = iterState_->bookmarkKey();
          bool found = false;
          const Record& record = map.driftMapFind(key, found);
          if (!found) return map.driftMapIterNext(key, cursor);
          cursor.record = record;
          return true;
        },
        false);
  }

  static bool nextRecord(Drift::DriftMap<Record>& map, Cursor& cursor) {
    const Key key = cursor.record.logEntry.key;
    return guardedRead(
        map, [&] { return map.driftMapIterNext(key, cursor); }, false);
  }

  /// What is in flight is shown instead of what is configured.
  bool hidden(const Record& record) const {
    const Key& key = record.logEntry.key;
    return table().transientRemoveEntryHas(key) || table().transientAddEntryHas(key) ||
           record.isDeleted;
  }

  void bookmark(const Key& key) {
    iterState_->bookmarkKeyIs(key);
    iterState_->stateIs(iterState_->state().withHasBookmark(true));
  }

  State* iterState_;
};

}  // namespace Asic
