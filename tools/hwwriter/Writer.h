#pragma once

#include <csignal>
#include <map>
#include <optional>

#include "asic/Chip.h"
#include "hwwriter/Classifier.h"
#include "hwwriter/Comparison.h"
#include "hwwriter/LogSource.h"
#include "hwwriter/Pace.h"
#include "hwwriter/Reports.h"

namespace HwWriter {

/// The hardware writer: takes what an agent commits to the chip.
///
/// I1. A version is programmed after those before it in the log of its table, and after everything
///     that it needs of other tables; it is reported after it is programmed.
/// I2. A death at any instruction leaves a chip that a successor brings to the configuration by
///     programming what differs, and nothing else.
class Writer {
 public:
  /// Throws what reading the rule files throws.
  explicit Writer(const Options& options);

  /// Works until `stop` is set, or, if so asked, until everything that was announced is programmed.
  /// Returns the exit status. Throws `Drift::MountException` when the directory cannot be used.
  int run(const volatile std::sig_atomic_t& stop);

 private:
  struct Unit {
    std::unique_ptr<Tables::Config> config;
    Word generation = 0;
  };
  struct Table {
    const TableKind* kind = nullptr;
    std::unique_ptr<LogSource> source;
    std::map<Asic::UnitId, Unit> units;
    /// Rows that differed when they were compared, by the version at which they are looked at
    /// again.
    std::multimap<Word, Comparison::Later> later;
  };
  enum class Step { nothing, some, lost };

  void look();
  bool open();
  bool openLog(Table& table);
  void openConfigs(Table& table, Comparison& comparison);
  void takeLater(Table& table, Comparison& comparison);
  void startOver(const std::string& why);

  bool advance();
  Step advance(Table& table);
  bool satisfied(const std::vector<Asic::TableVersion>& needs);
  void apply(const TableKind& kind, const Tables::LogRow& row);

  bool drained();
  bool settle();
  bool settle(Table& table, bool everything);
  bool atRest();
  void sleep() const;
  int summary();

  Options options_;
  News news_;
  Pace pace_;
  std::optional<Classifier> classifier_;
  std::optional<Drift::Directory> directory_;
  std::unique_ptr<SimAsic::Chip> chip_;
  std::optional<Reports> reports_;
  /// The lowest tier first.
  std::vector<Table> tables_;
  std::string lost_;
  Tables::LogRow row_;
};

}  // namespace HwWriter
