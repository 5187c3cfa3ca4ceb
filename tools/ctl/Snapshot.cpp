#include <algorithm>
#include <map>
#include <set>
#include <thread>

#include "OrderedTable/Catalogue.h"
#include "ctl/Picture.h"
#include "tables/AgentNotes.h"

namespace Ctl {
namespace {

using Drift::DriftFile;
using Drift::Format::Line;
using Record = std::vector<Word>;

/// Number of rounds after which the agent counts as too busy. Each round takes as long as the
/// changes since the previous one, so usually a few rounds suffice.
constexpr unsigned kRounds = 100'000;
/// Rows between two reads of the log, which loses records once the hardware has reported them.
constexpr std::size_t kRowsBetweenLooks = 256;

std::unique_ptr<DriftFile> makeLike(const Drift::Directory& to, const std::string& path,
                                    const DriftFile& file) {
  return DriftFile::openForWriting(to, path, *Drift::geometryOf(file.header()), {});
}

void lineIs(DriftFile& file, Line line, Word value) {
  Drift::CheckedWordWriter word(file.data(), line);
  word.adopt();
  word.set(value);
}

/// A copy of one table at one version: log, needed sets and configurations, read while the agent
/// continues.
///
/// The configurations are walked while the log is followed; a key that the log names afterwards is
/// read again. The copy is complete when the log has been read to its end and no row is newer.
class TableCopy {
 public:
  TableCopy(const Drift::Directory& from, const TableKind& kind)
      : from_(from),
        kind_(kind),
        log_(from, kind.logPath, kind.log),
        needed_(from, kind.neededPath, Tables::neededShape()),
        view_(log_.file()),
        neededView_(needed_.file()),
        record_(view_.recordWords()) {
    begin();
  }

  const TableKind& kind() const noexcept { return kind_; }
  /// The version of the copy.
  Word cut() const noexcept { return cut_; }

  /// Follows the agent. Returns whether the copy is complete.
  bool advance() {
    if (!readLog()) {
      begin();
      return false;
    }
    for (const auto& [unit, key] : std::exchange(changed_, {})) {
      key.empty() ? walk(unit) : readRow(unit, key);
    }
    std::erase_if(early_, [&](const auto& row) { return row.second <= cut_; });
    if (!changed_.empty()) return false;
    // Rows that a dead agent configured and did not log remain as they are.
    return early_.empty() || !Tables::isWritten(from_, kind_.logPath);
  }

  /// Whether all versions of other tables that this copy requires are in their copies.
  bool isClosed(const std::vector<TableCopy>& all) const {
    for (const auto& [sequence, words] : needs_) {
      Asic::NeededEntryRecord record;
      Asic::NeededEntryDrift::Layout::fromWords(words.data(), record);
      for (std::size_t i = 0; i < std::min<std::size_t>(record.count, record.needed.size()); ++i) {
        const auto& need = record.needed[i];
        const auto other = std::ranges::find_if(
            all, [&](const TableCopy& copy) { return copy.kind_.id == need.tableId(); });
        if (other != all.end() && need.logVersion().value() > other->cut_) return false;
      }
    }
    return true;
  }

  std::size_t store(const Drift::Directory& to) const {
    std::size_t stored = storeDense(to, log_, records_, cut_ + 1);
    const Word sequence = needs_.empty() ? neededView_.window().next : needs_.rbegin()->first + 1;
    stored += storeDense(to, needed_, needs_, sequence);
    for (const auto& [unit, config] : configs_) {
      const auto file = makeLike(to, config.path(), config.file());
      Drift::HashedWriter writer(*file);
      for (const auto& [key, record] : rows_.at(unit)) writer.set(record);
      stored += rows_.at(unit).size();
    }
    return stored;
  }

 private:
  using Records = std::map<Word, Record>;
  using Key = std::pair<Asic::UnitId, Record>;

  void begin() {
    records_.clear();
    needs_.clear();
    rows_.clear();
    configs_.clear();
    changed_.clear();
    early_.clear();
    next_ = view_.window().first;
    nextNeed_ = neededView_.window().first;
    if (!readLog()) return begin();
    for (const Asic::UnitId unit : Tables::configuredUnits(from_, kind_)) walk(unit);
  }

  /// Reads the log up to the announced version. False if records were removed before they could be
  /// read.
  bool readLog() {
    const auto announced = Tables::lineOf(log_.file(), Line::announced);
    if (!announced) throw Fenrik::CorruptionDetectedException("the announced version is damaged");
    cut_ = std::max(cut_, *announced);
    for (Word version = next_; next_ <= cut_; next_ = version + 1, version = next_) {
      const bool found = view_.findFrom(version, record_);
      if (view_.window().first > next_) return false;
      if (!found || version > cut_) break;
      Tables::logRowIs(row_, kind_, record_);
      changed_.emplace(row_.unit, row_.tableDelete ? Record() : Tables::keyOf(kind_, row_.entry));
      records_.emplace(version, record_);
    }
    std::vector<Word> words(neededView_.recordWords());
    for (Word sequence = nextNeed_; neededView_.findFrom(sequence, words); ++sequence) {
      Asic::NeededEntryRecord need;
      Asic::NeededEntryDrift::Layout::fromWords(words.data(), need);
      if (need.version.value() > cut_) break;
      needs_.emplace(sequence, words);
      nextNeed_ = sequence + 1;
    }
    return true;
  }

  Tables::Config& config(Asic::UnitId unit) {
    const auto known = configs_.find(unit);
    if (known != configs_.end()) return known->second;
    rows_[unit];
    return configs_.try_emplace(unit, from_, kind_, unit).first->second;
  }

  void walk(Asic::UnitId unit) {
    Tables::Config& from = config(unit);
    rows_[unit].clear();
    std::size_t count = 0;
    bool whole = true;
    Tables::walkHashed(
        from.file(),
        [&](Words record) {
          take(unit, record);
          if (++count % kRowsBetweenLooks == 0) whole = readLog() && whole;
        },
        [](const std::string& damage) { Context::say(damage); });
    // If log records were lost meanwhile, the next round reads the unit again.
    if (!whole) changed_.emplace(unit, Record());
  }

  void readRow(Asic::UnitId unit, const Record& key) {
    Tables::Config& from = config(unit);
    Record record(from.recordWords());
    rows_[unit].erase(key);
    early_.erase({unit, key});
    if (Drift::HashedView(from.file()).find(key, record)) take(unit, record);
  }

  void take(Asic::UnitId unit, Words record) {
    const auto row = Tables::configRowOf(kind_, record);
    const auto key = Tables::keyOf(kind_, row.entry);
    if (row.version > cut_) early_[{unit, key}] = row.version;
    rows_[unit].insert_or_assign(key, Record(record.begin(), record.end()));
  }

  static std::size_t storeDense(const Drift::Directory& to, const Tables::Collection& like,
                                const Records& records, Word next) {
    const auto file = makeLike(to, like.path(), like.file());
    if (records.empty()) {
      lineIs(*file, Line::next, next);
      lineIs(*file, Line::first, next);
    }
    Drift::DenseWriter writer(*file);
    for (const auto& [version, record] : records) writer.set(record);
    lineIs(*file, Line::scratchpad, next - 1);
    lineIs(*file, Line::announced, next - 1);
    lineIs(*file, Line::writer, Tables::lineOf(like.file(), Line::writer).value_or(0));
    lineIs(*file, Line::writerGeneration,
           Tables::lineOf(like.file(), Line::writerGeneration).value_or(0));
    return records.size();
  }

  const Drift::Directory& from_;
  const TableKind& kind_;
  Tables::Collection log_;
  Tables::Collection needed_;
  Drift::DenseView view_;
  Drift::DenseView neededView_;
  std::map<Asic::UnitId, Tables::Config> configs_;
  std::map<Asic::UnitId, std::map<Record, Record>> rows_;
  /// Log records and needed sets read so far, and the next number to read of each.
  Records records_;
  Records needs_;
  Word next_ = 0;
  Word nextNeed_ = 0;
  Word cut_ = 0;
  /// Keys that the log has named since they were read; an empty key for a cleared unit.
  std::set<Key> changed_;
  /// Rows newer than the copy's version, with their versions.
  std::map<Key, Word> early_;
  Record record_;
  Tables::LogRow row_;
};

/// Stores the reports of each group, limited to the versions of the copies.
void storeReports(const Drift::Directory& from, const Drift::Directory& to,
                  const std::vector<TableCopy>& copies) {
  std::map<std::string, std::unique_ptr<DriftFile>> files;
  for (const TableCopy& copy : copies) {
    const std::string path = reportPath(copy.kind());
    if (from.entities(path).empty()) continue;
    auto& file = files[path];
    if (file == nullptr) file = makeLike(to, path, *DriftFile::openForReading(from, path, nullptr));
    const Word reported = std::min(reportedOf(from, copy.kind()), copy.cut());
    Drift::HashedWriter(*file).set(reportRecord(copy.kind(), reported));
  }
}

/// The records of a hashed collection and its scratchpad.
struct HashedCopy {
  std::vector<Record> records;
  Word scratchpad = 0;

  friend bool operator==(const HashedCopy&, const HashedCopy&) = default;
};

HashedCopy copyOf(const DriftFile& file) {
  HashedCopy copy;
  Tables::walkHashed(
      file, [&](Words record) { copy.records.emplace_back(record.begin(), record.end()); },
      [](const std::string& damage) { Context::say(damage); });
  std::ranges::sort(copy.records);
  copy.scratchpad = Tables::lineOf(file, Line::scratchpad).value_or(0);
  return copy;
}

void store(const Drift::Directory& to, const std::string& path, const DriftFile& like,
           const HashedCopy& copy) {
  const auto file = makeLike(to, path, like);
  Drift::HashedWriter writer(*file);
  for (const Record& record : copy.records) writer.set(record);
  lineIs(*file, Line::scratchpad, copy.scratchpad);
}

/// What the agent notes of next hops. It is that of the tables only if the agent was at rest while
/// they were copied, with the same notes before and after.
class NotesCopy {
 public:
  explicit NotesCopy(const Drift::Directory& from) {
    if (from.entities(kPath).empty()) return;
    file_ = DriftFile::openForReading(from, kPath, nullptr);
    before_ = copyOf(*file_);
  }

  void store(const Drift::Directory& to) const {
    if (file_ == nullptr) return;
    HashedCopy copy = copyOf(*file_);
    if (copy != before_) copy.scratchpad = 0;
    Ctl::store(to, kPath, *file_, copy);
  }

 private:
  const std::string kPath{Tables::kNextHopNotes};
  std::unique_ptr<DriftFile> file_;
  HashedCopy before_;
};

/// Stores the collections that belong to no table; resources after the entries that follow them.
void storeState(const Drift::Directory& from, const Drift::Directory& to) {
  auto paths = from.entities("stavro/");
  std::ranges::copy(from.entities(Asic::CatalogueDrift::kPath), std::back_inserter(paths));
  std::ranges::copy(from.entities("hardware/resource/"), std::back_inserter(paths));
  for (const std::string& path : paths) {
    const auto file = DriftFile::openForReading(from, path, nullptr);
    store(to, path, *file, copyOf(*file));
  }
}

}  // namespace

int snapshot(const Context& context, const std::string& path) {
  const Drift::Directory& from = context.directory;
  const Drift::Directory to(path, Drift::Directory::Access::write);
  if (!to.entities("").empty()) {
    throw UsageError(fmt::format("{} is not empty; give a new directory", path));
  }
  const NotesCopy notes(from);
  std::vector<TableCopy> copies;
  copies.reserve(Tables::tableKinds().size());
  for (const TableKind& kind : Tables::tableKinds()) {
    if (!from.entities(kind.logPath).empty()) copies.emplace_back(from, kind);
  }
  for (unsigned round = 0; context.stop == 0; ++round) {
    bool whole = true;
    for (TableCopy& copy : copies) whole = copy.advance() && whole;
    if (whole &&
        std::ranges::all_of(copies, [&](const TableCopy& copy) { return copy.isClosed(copies); })) {
      break;
    }
    if (round == kRounds) {
      context.say("the agent changes its tables faster than they can be copied; try again");
      return kFinding;
    }
  }
  std::size_t records = 0;
  for (const TableCopy& copy : copies) records += copy.store(to);
  storeReports(from, to, copies);
  storeState(from, to);
  notes.store(to);
  context.line(fmt::format("{} records of {} tables copied to {}", records, copies.size(), path));
  return kFine;
}

}  // namespace Ctl
