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

/// The hardware writer: brings an agent's commits to the chip.
///
/// I1. A version is programmed after all earlier ones in its table's log and after all that it
///     requires of other tables. It is reported after it is programmed.
/// I2. Everything programmed is reported, even after a crash between programming and report, and to
///     a report map that was replaced.
/// I3. Only the log changes the chip. Configuration and chip are compared only if the chip or a
///     collection that it followed was lost, and then only differences are programmed.
class Writer {
 public:
  /// Throws what reading the rule files throws.
  explicit Writer(const Options& options);

  /// Runs until `stop` is set or, with `--once`, until everything announced is programmed. Returns
  /// the exit status. Throws `Drift::MountException` if the directory cannot be used.
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
  /// All known families, in their order.
  std::vector<Table> tables_;
  /// Number of tables with a log, and the time of its last change.
  std::size_t present_ = 0;
  Clock::time_point grew_;
  unsigned looks_ = 0;
  /// Required tables that are unknown, with the number of looks at which they were first met.
  std::map<Asic::SwTableId, unsigned> unknown_;
  /// Why the place in a log is lost.
  std::string lost_;
  /// For each waiting table, the version of another table that it waits for, as text.
  std::map<Asic::SwTableId, std::string> waits_;
  Clock::time_point began_ = Clock::now();
  /// Time at which something was last programmed.
  Clock::time_point moved_ = began_;
  /// Number of consecutive looks at which another process held a collection.
  unsigned busy_ = 0;
  bool started_ = false;
  bool complete_ = false;
  Tables::LogRow row_;
};

}  // namespace HwWriter
