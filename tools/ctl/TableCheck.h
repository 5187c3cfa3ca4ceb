#pragma once

#include <map>

#include "ctl/Command.h"
#include "ctl/Findings.h"

namespace Ctl {

/// Checks the collections of one table against each other: the versions of the log, log against
/// configuration, needed sets against announced versions.
///
/// A killed agent leaves at most its last operation incomplete: configured and not logged, or
/// logged and not announced. The version of an operation that was not logged is issued again for
/// another one.
class TableCheck {
 public:
  TableCheck(const Drift::Directory& directory, const TableKind& kind, Findings& findings)
      : directory_(directory), kind_(kind), findings_(findings) {}

  /// Throws `Drift::MountException` if the log cannot be opened.
  void check();

 private:
  /// The newest change of a key in the log.
  struct Change {
    Word version = 0;
    bool isDelete = false;
    std::uint64_t digest = 0;
  };
  using Key = std::pair<Asic::UnitId, std::vector<Word>>;

  void checkLost();
  void checkNumbers(const Tables::Collection& log);
  void readLog(const Tables::Collection& log);
  void takeIn(const Tables::LogRow& row);
  void checkLogged(const Tables::Config& config);
  void checkChange(const Key& key, const Change& change, const Tables::Config& config);
  void checkConfigured(const Tables::Config& config);
  void checkRow(const Tables::Config& config, const Tables::ConfigRow& row);
  void checkNeeded();
  void checkNeededRecord(const Asic::NeededEntryRecord& record);

  void wrong(const std::string& text);
  void note(const std::string& text);
  std::string nameOf(const Key& key) const;
  Word announcedOf(const TableKind& kind);

  const Drift::Directory& directory_;
  const TableKind& kind_;
  Findings& findings_;
  Drift::DenseView::Window window_{};
  Word reported_ = 0;
  std::map<Key, Change> changes_;
  std::map<Asic::UnitId, Word> cleared_;
  /// The key changed by each version of the log; for a clear, no key.
  std::map<Word, Key> concerned_;
  /// Number of entries configured under a version that the log lacks, or has for another key.
  std::map<std::pair<Asic::UnitId, Word>, std::size_t> cuts_;
};

}  // namespace Ctl
