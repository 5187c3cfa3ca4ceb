#pragma once

#include <csignal>
#include <optional>

#include "asic/Chip.h"
#include "hwwriter/Classifier.h"
#include "hwwriter/Pace.h"
#include "hwwriter/Reports.h"
#include "hwwriter/Table.h"
#include "tables/Catalogue.h"

namespace HwWriter {

/// The hardware writer: takes what an agent commits to the chip.
///
/// I1. A version is programmed after those before it in the log of its table, and after everything
///     that it needs of other tables; it is reported after it is programmed.
/// I2. Whatever the chip is programmed to is reported, also after a death between the two, and in a
///     report map that was made anew.
/// I3. The log alone moves the chip. Configuration and chip are compared only after the chip or one
///     of the collections that it followed was lost, and only differences are programmed then.
class Writer {
 public:
  /// Throws what reading the rule files throws.
  explicit Writer(const Options& options);

  /// Works until `stop` is set or, with `--once`, until everything announced is programmed. Returns
  /// the exit status. Throws `Drift::MountException` when the directory cannot be used.
  int run(const volatile std::sig_atomic_t& stop);

 private:
  enum class Step { nothing, some, lost };
  using Clock = std::chrono::steady_clock;

  bool open();
  void learn();
  void look();
  void tellStarted();
  void reportAll();
  void ring();
  void startOver(const std::string& why);

  bool advance();
  Step advance(Table& table);
  bool satisfied(const TableKind& kind, Word version, const std::vector<Asic::TableVersion>& needs);
  void apply(const TableKind& kind, const Tables::LogRow& row);
  void waits(const TableKind& kind, Word version, const Table& other, Word needed);
  void tellWaits();

  bool work();
  bool drained() const;
  std::size_t differences();
  bool done();
  bool givesUp() const;
  std::chrono::milliseconds lookInterval() const;
  void sleep() const;
  std::string undone();
  int summary();

  Options options_;
  News news_;
  Pace pace_;
  std::optional<Classifier> classifier_;
  std::optional<Drift::Directory> directory_;
  Tables::Catalogue catalogue_;
  std::unique_ptr<SimAsic::Chip> chip_;
  std::optional<Reports> reports_;
  /// Of all families that are known; in their order.
  std::vector<Table> tables_;
  /// Tables with a log, and when their number last changed.
  std::size_t present_ = 0;
  Clock::time_point grew_;
  unsigned looks_ = 0;
  /// Tables that were needed and not known, and after how many looks they were met.
  std::map<Asic::SwTableId, unsigned> unknown_;
  /// Why the place in a log is lost.
  std::string lost_;
  /// For which version of another table a table waits, in words, by the waiting table.
  std::map<Asic::SwTableId, std::string> waits_;
  Clock::time_point began_ = Clock::now();
  /// When something was last programmed.
  Clock::time_point moved_ = began_;
  /// Looks in a row at which another process held a collection.
  unsigned busy_ = 0;
  bool started_ = false;
  bool complete_ = false;
  Tables::LogRow row_;
};

}  // namespace HwWriter
