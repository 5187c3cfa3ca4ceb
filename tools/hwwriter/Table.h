#pragma once

#include <map>
#include <memory>

#include "hwwriter/Comparison.h"
#include "hwwriter/LogSource.h"

namespace HwWriter {

/// What the agent shows of one table, and what is left to be made up for there.
///
/// An agent that dies between its two stores has configured something that no log brings; its
/// version is issued again for something else. The next agent sees it configured all the same, and
/// builds on it without a word in the log: it takes a row at which others point for written, or a
/// row that pointed at others for gone. So the chip must have it before anything that the next
/// agent logs, and after everything that the dead one logged.
///
/// Threads: one.
class Table {
 public:
  explicit Table(const TableKind& kind) : kind_(&kind) {}

  const TableKind& kind() const noexcept { return *kind_; }
  /// The log; null while the agent has not made it.
  LogSource* source() const noexcept { return source_.get(); }
  /// Opens the log, or opens it again when the agent has made it anew; false if there is none.
  bool open(const Drift::Directory& directory, const News& news);

  /// Another agent has taken the log over since the last `takeoverSeen`, which is true if one has.
  bool takenOver() const { return source_->generation() != generation_; }
  bool takeoverSeen();

  /// Compares the units' configurations that are new or were taken over, or all of them.
  void compare(const Drift::Directory& directory, Comparison& comparison, Word upTo, bool all,
               const News& news);
  /// Compares all that are open, with what is to be made up for forgotten.
  void compareAnew(Comparison& comparison, const Comparison::Bounds& bounds);

  bool hasLater() const noexcept { return !later_.empty(); }
  /// The version of the first thing that is to be made up for and on which the next agent builds; 0
  /// if there is none.
  Word cut() const;
  /// Compares what is to be made up for of the versions up to this one.
  void compareLater(Comparison& comparison, Word version, const Comparison::Bounds& bounds) const;
  /// The same of those on which the next agent builds alone.
  void compareCut(Comparison& comparison, Word version) const;
  /// What was compared by one of the two is done with, but for what has a later version by now.
  void laterDone(Comparison& comparison, Word version, bool cutAlone);

  /// What the configurations' digests add up to.
  std::uint64_t configDigest() const;

  /// How far other tables need this one before they can go on.
  Word demanded = 0;

 private:
  using Later = Comparison::Later;
  struct Unit {
    std::unique_ptr<Tables::Config> config;
    Word generation = 0;
  };

  void takeLater(Comparison& comparison);
  bool isCut(const Later& later) const;
  bool isBuiltUpon(const Later& later) const noexcept;
  void compareOne(Comparison& comparison, const Later& later,
                  const Comparison::Bounds& bounds) const;

  const TableKind* kind_;
  std::unique_ptr<LogSource> source_;
  Word generation_ = 0;
  std::map<Asic::UnitId, Unit> units_;
  /// What an agent configured and could not log before it died, by the versions that it meant.
  std::multimap<Word, Later> later_;
};

}  // namespace HwWriter
