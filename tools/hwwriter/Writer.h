#pragma once

#include <csignal>
#include <optional>

#include "asic/Chip.h"
#include "hwwriter/Classifier.h"
#include "hwwriter/Pace.h"
#include "hwwriter/Reports.h"
#include "hwwriter/Table.h"

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
  enum class Step { nothing, some, lost, taken };

  bool open();
  void look();
  void startOver(const std::string& why);

  bool advance();
  Step advance(Table& table);
  Word limitOf(const Table& table, Word announced) const;
  bool satisfied(const std::vector<Asic::TableVersion>& needs);
  void apply(const TableKind& kind, const Tables::LogRow& row);

  bool drained() const;
  bool settle();
  bool settleCut();
  bool settle(Table& table, bool everything);
  void tellSettled(const Table& table, std::size_t count) const;

  bool work();
  bool done();
  std::chrono::milliseconds lookInterval() const;
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
  /// Some table is demanded further than before.
  bool raised_ = false;
  /// How often in a row something was held by another process.
  unsigned busy_ = 0;
  /// Looks in a row at which there was nothing that could be done.
  unsigned idle_ = 0;
  Tables::LogRow row_;
};

}  // namespace HwWriter
