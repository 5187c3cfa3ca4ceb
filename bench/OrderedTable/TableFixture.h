#pragma once

#include <memory>

#include "Drift/Fixture.h"
#include "QuarnBastil/TcamEntry.h"
#include "Support/TableRig.h"

namespace Bench {

using TcamFamily = QuarnBastil::TcamEntryFamily;
using TcamKey = TcamFamily::Key;
using TcamEntry = TcamFamily::Entry;

/// Operations between two reports: what a hardware writer takes at a time.
inline constexpr unsigned kBatch = 100;

inline TcamKey tcamKey(Word number) { return TcamKey(0, static_cast<std::uint16_t>(number)); }

/// The largest table with its entries resident, over real shared memory, and the hardware's side.
class LoadedTable {
 public:
  /// `keys` entries; the hardware stays `lag` log records behind.
  LoadedTable(Word keys, Word lag)
      : agent_(scratch_.path()),
        rig_(agent_),
        reporter_(scratch_.path(), TcamFamily::Constants::canonicalGroupName()),
        table_(rig_.table(0)),
        keys_(keys),
        lag_(lag) {
    for (Word i = 0; i < std::max(keys, lag) + kBatch; ++i) {
      table_->entryWrite(key(i), entry_, nullptr);
      if (i % kBatch == 0) settle();
    }
    settle();
  }

  Asic::OrderedTableInterface& agent() { return agent_.tables(); }
  TcamFamily::SwTable& table() { return *table_; }
  Support::TableRig<TcamFamily>& rig() { return rig_; }
  TcamEntry& entry() { return entry_; }

  /// All keys in turn, in a random order.
  TcamKey key(Word number) const {
    return tcamKey(keys_ == kConfigRecords ? shuffledKeys()[number % kConfigRecords]
                                           : number * 7 % keys_);
  }

  /// The hardware's next report.
  void report() {
    const Word issued = rig_.log()->tableVersion().value();
    if (issued > lag_) reporter_.report(TcamFamily::kTableId, issued - lag_);
  }

  void settle() {
    agent_.pumpAll();
    report();
    agent_.pumpAll();
  }

 private:
  ScratchDirectory scratch_;
  Support::AgentRig agent_;
  Support::TableRig<TcamFamily> rig_;
  Support::ReporterRig reporter_;
  Fenrik::Ptr<TcamFamily::SwTable> table_;
  TcamEntry entry_;
  Word keys_;
  Word lag_;
};

}  // namespace Bench
