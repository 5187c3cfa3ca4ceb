#include "hwwriter/LogSource.h"

#include "Fenrik/Format.h"

namespace HwWriter {

using Drift::DenseRead;
using Fenrik::CorruptionDetectedException;

LogSource::LogSource(const Drift::Directory& directory, const TableKind& kind)
    : kind_(kind),
      log_(directory, kind.logPath, kind.log),
      needed_(directory, kind.neededPath, Tables::neededShape()),
      view_(log_.file()),
      neededView_(needed_.file()),
      record_(view_.recordWords()) {}

Word LogSource::announced() const {
  seen_ = log_.file().doorbell();
  const auto version = Tables::lineOf(log_.file(), Drift::Format::Line::announced);
  if (version) return *version;
  throw CorruptionDetectedException(Fenrik::formatString(
      "{}: the announced version does not prove itself; waiting for an agent to mount it anew",
      log_.file().path()));
}

LogSource::Read LogSource::read(Word version, Tables::LogRow& row) const {
  try {
    const DenseRead found = view_.find(version, record_);
    if (found == DenseRead::found) {
      Tables::logRowIs(row, kind_, record_);
      return Read::found;
    }
    const bool within = found == DenseRead::gone && view_.window().first <= version;
    return within ? Read::absent : Read::lost;
  } catch (const CorruptionDetectedException&) {
    return Read::lost;
  }
}

/// Reads the next needed record into `ahead_`. False if there is none yet.
bool LogSource::nextNeeded() {
  using Layout = Asic::NeededEntryDrift::Layout;
  std::array<Word, Layout::kWords> words;
  if (ahead_) return true;
  if (!neededView_.findFrom(sequence_, words)) return false;
  Layout::fromWords(words.data(), ahead_.emplace());
  ++sequence_;
  return true;
}

const std::vector<Asic::TableVersion>* LogSource::needs(Word version) {
  if (needsOf_ == version) return &needs_;
  needs_.clear();
  try {
    while (nextNeeded() && ahead_->version.value() <= version) {
      const auto count = std::min<std::size_t>(ahead_->count, ahead_->needed.size());
      if (ahead_->version.value() == version) {
        needs_.insert(needs_.end(), ahead_->needed.begin(),
                      ahead_->needed.begin() + static_cast<long>(count));
      }
      ahead_.reset();
    }
  } catch (const CorruptionDetectedException&) {
    ++sequence_;
    return nullptr;
  }
  needsOf_ = version;
  return &needs_;
}

}  // namespace HwWriter
