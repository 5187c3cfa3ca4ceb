#pragma once

#include <map>

#include "ctl/Command.h"
#include "ctl/Findings.h"

namespace Ctl {

/// Holds what the collections of one table say against each other: the versions of the log, the
/// log against the configuration, the needed sets against what was announced.
///
/// An agent that is killed leaves at most the last operation in part: it may be configured and not
/// logged, or logged and not announced. The version of one that was not logged is issued again for
/// something else.
class TableCheck {
 public:
  TableCheck(const Drift::Directory& directory, const TableKind& kind, Findings& findings)
      : directory_(directory), kind_(kind), findings_(findings) {}

  /// Throws `Drift::MountException` for a log that cannot be opened.
  void check();

 private:
  /// The newest thing that the log says of a key.
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
  /// What each version of the log concerns; of a clear, no key.
  std::map<Word, Key> concerned_;
  /// Entries that are configured under a version that is not theirs in the log.
  std::map<std::pair<Asic::UnitId, Word>, std::size_t> cuts_;
};

}  // namespace Ctl
