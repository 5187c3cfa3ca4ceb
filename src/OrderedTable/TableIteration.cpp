#include <cstring>
#include <iterator>
#include <string>

#include "Fenrik/Assert.h"
#include "Kiv/Trace.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

namespace {

/// Function name under which all parts of a step are traced.
constexpr const char* kStep = "maybeUpdateCurrentEntry";

}  // namespace

void IterFlags::textAppend(std::string& text) const {
  constexpr const char* kNames[] = {"hasCurrent", "inAddColl", "inTblCfg", "removeAllPending",
                                    "hasBookmark"};
  const char* separator = "";
  for (unsigned bit = 0; bit < std::size(kNames); ++bit) {
    if (!has(bit)) continue;
    text.append(separator).append(kNames[bit]);
    separator = " ";
  }
}

void TableCore::initIterState(SwTableIteratorStateBase& state) const {
  state.tableIs(&table_);
  state.stateIs(
      state.state().withRemoveAllPending(transientRemoveAllVersion_.valid()).withInAddColl(true));
}

void TableCore::initIterStateFromKey(SwTableIteratorStateBase& state, const void* key) const {
  KIV_TRACE(ownTrace(), 8, name(), " key: {}", textOf(key));
  const KeyImage image = imageOf(key);
  state.tableIs(&table_);
  state.bookmarkIs(image);
  auto flags =
      state.state().withRemoveAllPending(transientRemoveAllVersion_.valid()).withHasBookmark(true);
  const InFlightKey* const inFlight = inFlight_.find(image.words());
  if (inFlight != nullptr && inFlight->add != nullptr) {
    flags = flags.withInAddColl(true);
  } else if (!flags.removeAllPending() && entryLog_->entryHas(image.words(), table_.unitId())) {
    flags = flags.withInTblCfg(true);
  }
  state.stateIs(flags);
}

void TableCore::maybeUpdateCurrentEntry(SwTableIteratorStateBase& state, void* entry) {
  const TableCore& core = *state.table()->core();
  const Kiv::TraceHandle& trace = core.descriptor_.traces.iteration;
  KIV_TRACE(trace, 8, "", "");
  if (state.state().inAddColl() && core.stepInAddColl(state, entry)) return;
  if (state.state().inTblCfg() && core.stepInTblCfg(state, entry)) return;
  KIV_TRACE(trace, 9, "", "  no more entries");
  state.stateIs(state.state().withHasCurrent(false).withInAddColl(false).withInTblCfg(false));
}

/// Returns false when the transient adds are exhausted.
bool TableCore::stepInAddColl(SwTableIteratorStateBase& state, void* entry) const {
  const SwTableIteratorStateBase* const iterState_ = &state;
  const Kiv::TraceHandle& trace = descriptor_.traces.iteration;
  FENRIK_ASSERT_TEXT(!iterState_->state().inTblCfg(), "!iterState_->state().inTblCfg()");
  using Walk = InFlight::Walk;
  Walk walk = state.state().hasBookmark()
                  ? Walk(inFlight_, InFlight::View::adds, inFlight_.find(state.bookmark().words()))
                  : Walk(inFlight_, InFlight::View::adds);
  KIV_TRACE_AS(kStep, trace, 9, "", "  in transientAdd collection");
  const auto leave = [&] {
    KIV_TRACE_AS("operator()", trace, 9, "", "  done with transAdd");
    const auto flags = state.state().withInAddColl(false);
    state.stateIs(flags.removeAllPending() ? flags : flags.withInTblCfg(true));
  };
  if (!walk) {
    leave();
    if (state.state().inTblCfg()) {
      FENRIK_ASSERT_TEXT(!iterState_->state().inAddColl(), "!iterState_->state().inAddColl()");
    }
    return false;
  }
  state.stateIs(state.state().withHasCurrent(true));
  KIV_TRACE_AS(kStep, trace, 9, "", "  found entry: {}", textOf(walk->key()));
  std::memcpy(entry, walk->add->entryBytes(), descriptor_.records.entrySize);
  ++walk;
  if (!walk) {
    state.stateIs(state.state().withHasBookmark(false));
    leave();
  } else {
    state.bookmarkIs(imageOf(walk->key()));
    state.stateIs(state.state().withHasBookmark(true));
  }
  return true;
}

/// Returns false at the end of the configured collection.
bool TableCore::stepInTblCfg(SwTableIteratorStateBase& state, void* entry) const {
  const Kiv::TraceHandle& trace = descriptor_.traces.iteration;
  KIV_TRACE_AS(kStep, trace, 9, "", "  in cfgDrift collection");
  const Fenrik::Ptr<EntryLogCore> entryLog = entryLog_;
  const ConfigStore& config = *entryLog->config(table_.unitId());
  std::vector<Word>& room = state.recordRoom();
  room.resize(config.recordWords());
  const ConfigRecord record = config.recordOf(room.data());
  bool found = false;
  if (!state.state().hasBookmark()) {
    found = config.first(room);
  } else if (const ConfigRecord* const at = config.look(state.bookmark().words())) {
    std::copy_n(at->words(), room.size(), room.begin());
    found = true;
  } else {
    found = config.next(state.bookmark().words(), room);
  }
  while (found && hidden(record)) found = config.next(imageOf(record.words()).words(), room);
  if (!found) return false;
  const KeyImage key = imageOf(record.words());
  state.stateIs(state.state().withHasCurrent(true));
  record.entryTo(entry);
  KIV_TRACE_AS(kStep, trace, 9, "", "  found entry: {}", textOf(key.words()));
  if (config.next(key.words(), room)) {
    state.bookmarkIs(imageOf(record.words()));
    state.stateIs(state.state().withHasBookmark(true));
  } else {
    KIV_TRACE_AS(kStep, trace, 9, "", "  done with cfgDrift");
    state.stateIs(state.state().withHasBookmark(false).withInTblCfg(false));
  }
  return true;
}

/// Whether a configured record is not shown: it is in deletion, or an operation is in flight on its
/// key.
bool TableCore::hidden(const ConfigRecord& record) const {
  if (record.isDeleted()) return true;
  const InFlightKey* const inFlight = inFlight_.find(imageOf(record.words()).words());
  return inFlight != nullptr && (inFlight->add != nullptr || inFlight->remove != nullptr);
}

}  // namespace Asic
