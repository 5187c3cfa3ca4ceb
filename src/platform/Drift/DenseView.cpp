#include "Drift/DenseCollection.h"
#include "Fenrik/Format.h"

namespace Drift {

namespace {

/// As in the hashed collection: so many changes during one read mean damage.
constexpr int kAttempts = 10000;
constexpr Word kHolesChanging = Word{1} << 63;

}  // namespace

DenseView::DenseView(const DriftFile& file)
    : file_(&file),
      pass_(file),
      chunks_(file),
      recordWords_(Format::paddedSize(file.header().recordSize) / sizeof(Word)),
      mask_(file.header().slotCount - 1),
      first_(file.data(), Format::Line::first),
      next_(file.data(), Format::Line::next),
      holes_(file.data(), Format::Line::holes),
      redirect_(file.data(), Format::Line::redirect) {}

void DenseView::corrupt(const char* what, Word version) const {
  throw Fenrik::CorruptionDetectedException(
      Fenrik::formatString("{}: {} (version {})", file_->path(), what, version));
}

Word DenseView::line(const CheckedWord& word, const char* name) const {
  const auto value = word.load();
  if (!value) corrupt(name, 0);
  return *value;
}

DenseView::Window DenseView::window() const {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Word first = line(first_, "the low end of the log does not prove itself");
    const Word next = line(next_, "the high end of the log does not prove itself");
    if (next >= first && next - first <= mask_ + 1) return {first, next};
    // The ends are changed one after the other: an impossible window is read again.
    if (line(first_, "the low end of the log does not prove itself") == first && attempt > 0) {
      if (next < first) return {first, first};
    }
  }
  corrupt("the ends of the log are further apart than the log is long", next_.load().value_or(0));
}

/// The current window, or the known one if it contains the version and the low end has not moved.
DenseView::Window DenseView::windowAround(Word version) const {
  const Word stamp = first_.stamp();
  if (version < known_.first || version >= known_.next || stamp != knownStamp_) {
    known_ = window();
    knownStamp_ = stamp;
  }
  return known_;
}

Word DenseView::size() const {
  pass_.show();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Word firstStamp = first_.stamp();
    const Word nextStamp = next_.stamp();
    const Word holesStamp = holes_.stamp();
    const Window at = window();
    const Word holes = line(holes_, "the number of absent versions does not prove itself");
    const bool changing = (holes & kHolesChanging) != 0;
    const Word absent = changing ? countAbsent(at, holesStamp) : holes;
    if (first_.stamp() != firstStamp || next_.stamp() != nextStamp ||
        holes_.stamp() != holesStamp) {
      continue;
    }
    if (absent > at.next - at.first)
      corrupt("there are more absent versions than versions", absent);
    return at.next - at.first - absent;
  }
  corrupt("it changes without end while it is counted", 0);
}

Word DenseView::countAbsent(const Window& window, Word holesStamp) const {
  const Word redirect = line(redirect_, "the redirection does not prove itself");
  Word absent = 0;
  for (Word version = window.first; version < window.next; ++version) {
    if (holes_.stamp() != holesStamp) break;
    if (version + 1 != redirect && isAbsent(version)) ++absent;
  }
  return absent;
}

bool DenseView::isAbsent(Word version) const noexcept {
  const Word* const slot = chunks_.slotOf(version);
  return slot != nullptr && loadWord(slot) == Seal::absentSeal(static_cast<std::uint32_t>(version));
}

DenseView::Slot DenseView::copySlot(const Word* slot, Word version,
                                    std::span<Word> out) const noexcept {
  if (slot == nullptr) return Slot::torn;
  const Word seal = loadWord(slot);
  const auto low = static_cast<std::uint32_t>(version);
  if (Seal::lowOf(seal) != low) return Slot::torn;
  if (seal == Seal::absentSeal(low)) return Slot::absent;
  const std::uint32_t crc = Seal::kLoops.copyOut(out.data(), slot + 1, recordWords_, low);
  return Seal::sealWord(crc, low) == seal && out[0] == version ? Slot::whole : Slot::torn;
}

DenseRead DenseView::find(Word version, std::span<Word> out) const {
  pass_.show();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Window at = windowAround(version);
    if (version < at.first) return DenseRead::gone;
    if (version >= at.next) return DenseRead::notYet;
    const Word stamp = redirect_.stamp();
    const bool aside = line(redirect_, "the redirection does not prove itself") == version + 1;
    const Slot slot = copySlot(aside ? chunks_.sideSlot() : chunks_.slotOf(version), version, out);
    if (redirect_.stamp() != stamp) continue;
    if (slot == Slot::whole) return DenseRead::found;
    if (slot == Slot::absent) return DenseRead::gone;
    // Nothing was being replaced, so either the window has moved on or the record is damaged.
    if (window().first <= version) corrupt("a record does not prove itself", version);
  }
  corrupt("it changes without end while it is read", version);
}

bool DenseView::findFrom(Word& version, std::span<Word> out) const {
  for (;;) {
    const Window at = window();
    if (version < at.first) version = at.first;
    if (version >= at.next) return false;
    if (find(version, out) == DenseRead::found) return true;
    ++version;
  }
}

}  // namespace Drift
