#pragma once

#include <atomic>
#include <cstring>
#include <memory>

#include "Drift/Fixture.h"
#include "QuarnBastil/TcamEntry.h"
#include "Support/TableRig.h"

namespace Bench {

using TcamFamily = QuarnBastil::TcamEntryFamily;
using TcamKey = TcamFamily::Key;
using TcamEntry = TcamFamily::Entry;

/// Operations between two reports: the hardware writer's batch.
inline constexpr unsigned kBatch = 100;

inline TcamKey tcamKey(Word number) { return TcamKey(0, static_cast<std::uint16_t>(number)); }

/// An entry with its prefixes present, as in rules.
inline TcamEntry wholeEntry() {
  TcamEntry entry;
  const QuarnBastil::OptionalPrefix prefix({0x20, 0x01, 0x0d, 0xb8}, 7, 64);
  entry.sourcePrefix = entry.destinationPrefix = prefix;
  entry.innerSourcePrefix = entry.innerDestinationPrefix = prefix;
  return entry;
}

/// Floor of a committed write: storing its two records, and one word that announces them. They are
/// in files of the collections' kind, so that all have pages of the same size. The record's size is
/// a compile-time constant, as in a program with one record type; copies of 552 bytes by the C
/// library, with the size given at run time, take less than half the time (AVX-512).
template <std::uint32_t recordSize>
class Floor {
 public:
  Floor()
      : config_(Drift::DriftFile::openForWriting(directory_, "config", configGeometry(recordSize),
                                                 {.reserveAll = true})),
        log_(Drift::DriftFile::openForWriting(directory_, "log", logGeometry(recordSize),
                                              {.reserveAll = true})),
        record_(recordSize, 2) {}

  void operation() {
    std::memcpy(slots_ + keys_.next() * recordSize, record_.data(), recordSize);
    std::memcpy(records_ + at_ % kLogRecords * recordSize, record_.data(), recordSize);
    announced_.store(at_++, std::memory_order_release);
  }

 private:
  ScratchDirectory scratch_;
  Drift::Directory directory_{scratch_.path(), Drift::Directory::Access::write};
  std::unique_ptr<Drift::DriftFile> config_;
  std::unique_ptr<Drift::DriftFile> log_;
  std::byte* slots_ = config_->data() + config_->header().slotsOffset;
  std::byte* records_ = log_->data() + log_->header().slotsOffset;
  std::atomic_ref<Word> announced_{
      *log_->words(Drift::Format::lineOffset(Drift::Format::Line::announced))};
  std::vector<char> record_;
  RandomKeys keys_;
  std::size_t at_ = 0;
};

/// The largest table with its entries configured, in real shared memory, and the hardware's side.
class LoadedTable {
 public:
  /// `keys` entries; the hardware lags `lag` log records behind.
  LoadedTable(Word keys, Word lag)
      : agent_(scratch_.path()),
        rig_(agent_),
        reporter_(scratch_.path(), TcamFamily::Constants::canonicalGroupName()),
        table_(rig_.table(0)),
        random_(keys),
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

  /// A new random key.
  TcamKey randomKey() { return tcamKey(random_.next()); }
  /// All keys in turn, in one random order. Writing them in this order visits slots sequentially.
  TcamKey key(Word number) const {
    return tcamKey(keys_ == kConfigRecords ? shuffledKeys()[number % kConfigRecords]
                                           : number * 7 % keys_);
  }

  /// Makes the hardware's next report.
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
  TcamEntry entry_ = wholeEntry();
  RandomKeys random_;
  Word keys_;
  Word lag_;
};

}  // namespace Bench
