#include <algorithm>
#include <vector>

#include "Drift/DenseCollection.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"

namespace Drift {

namespace {

constexpr Word kHolesChanging = Word{1} << 63;

}  // namespace

DenseWriter::DenseWriter(DriftFile& file)
    : file_(file),
      view_(file),
      chunks_(file),
      mask_(file.header().slotCount - 1),
      first_(file.data(), Format::Line::first),
      next_(file.data(), Format::Line::next),
      holes_(file.data(), Format::Line::holes),
      redirect_(file.data(), Format::Line::redirect) {
  FENRIK_ASSERT(first_.adopt() && next_.adopt() && holes_.adopt() && redirect_.adopt());
  // Both ends prove themselves; a window that cannot be comes of a death between the two stores
  // that move an empty window.
  if (next_.value() < first_.value() || next_.value() - first_.value() > mask_ + 1) {
    first_.set(next_.value());
  }
  const auto* const side = reinterpret_cast<const std::byte*>(view_.chunks_.sideSlot());
  file_.reserve(static_cast<Word>(side - file_.data()), file_.header().slotStride);
  chunks_.takeOver(first_.value(), next_.value());
  finishRedirect();
  // A death between the two stores of a removal of everything leaves the number of holes behind.
  if (empty() && holes_.value() != 0) holes_.set(0);
  if ((holes_.value() & kHolesChanging) != 0) recountHoles();
}

/// A death between publishing the side slot and putting the record in its place: done now.
void DenseWriter::finishRedirect() {
  if (redirect_.value() == 0) return;
  const Word version = redirect_.value() - 1;
  if (!empty() && version >= first_.value() && version < next_.value()) {
    std::vector<Word> record(view_.recordWords());
    if (view_.copySlot(view_.chunks_.sideSlot(), version, record) == DenseView::Slot::whole) {
      fillSlot(slotOf(version), record);
    }
  }
  redirect_.set(0);
}

void DenseWriter::recountHoles() {
  holes_.set(view_.countAbsent({first_.value(), next_.value()}, view_.holes_.stamp()));
}

void DenseWriter::fillSlot(Word* slot, std::span<const Word> record) noexcept {
  const auto low = static_cast<std::uint32_t>(record[0]);
  const std::uint32_t crc = Seal::kLoops.copyIn(slot + 1, record.data(), record.size(), low);
  storeWord(slot, Seal::sealWord(crc, low));
}

void DenseWriter::markAbsent(Word version) noexcept {
  storeWord(slotOf(version), Seal::absentSeal(static_cast<std::uint32_t>(version)));
}

void DenseWriter::checkRoom(Word first, Word next) const {
  // The highest number cannot be followed by another one.
  if (next > first && next - first <= mask_ + 1) return;
  throw CollectionFullException(Fenrik::formatString(
      "{}: full: versions {} to {} are {} places, the ring has {} for its limit of {}; let the low "
      "end move up first",
      file_.path(), first, next - 1, next - first, mask_ + 1, file_.header().capacity));
}

void DenseWriter::makeRoom() {
  checkRoom(empty() ? next_.value() : first_.value(), next_.value() + 1);
  chunks_.reserveFor(next_.value(), next_.value());
}

void DenseWriter::set(std::span<const Word> record) {
  const Word version = record[0];
  if (empty() || version >= next_.value()) {
    append(record);
  } else if (version < first_.value()) {
    prepend(record);
  } else if (view_.isAbsent(version)) {
    changeHoles(version, holes_.value() - 1, false, record);
  } else {
    replace(record);
  }
}

/// At the end of the window, or as its only record; versions that are left out become absent.
void DenseWriter::append(std::span<const Word> record) {
  const Word version = record[0];
  const Word first = empty() ? version : first_.value();
  checkRoom(first, version + 1);
  const Word from = empty() ? version : next_.value();
  if (empty()) {
    // Between an empty window and where it opens again nothing is needed.
    chunks_.releaseBefore(version);
    chunks_.releaseBehind(version);
  }
  chunks_.reserveFor(from, version);
  if (empty() && first_.value() != version) {
    // Nothing lies in the window: it moves before it opens. `next` first if it moves up, so that
    // an empty window is empty for whoever sees one end moved.
    if (version > next_.value()) {
      holes_.set(0);
      first_.set(version);
      next_.set(version);
    } else {
      next_.set(version);
      first_.set(version);
    }
  }
  for (Word absent = from; absent < version; ++absent) markAbsent(absent);
  fillSlot(slotOf(version), record);
  moveEnd(next_, version + 1, version - from);
}

/// Moves an end of the window outwards, over versions that are absent.
void DenseWriter::moveEnd(CheckedWordWriter& end, Word value, Word absent) noexcept {
  const Word holes = holes_.value() + absent;
  if (absent != 0) holes_.set(holes_.value() | kHolesChanging);
  end.set(value);
  if (absent != 0) holes_.set(holes);
}

void DenseWriter::prepend(std::span<const Word> record) {
  const Word version = record[0];
  checkRoom(version, next_.value());
  chunks_.reserveFor(version, first_.value() - 1);
  for (Word absent = version + 1; absent < first_.value(); ++absent) markAbsent(absent);
  fillSlot(slotOf(version), record);
  moveEnd(first_, version, first_.value() - version - 1);
}

/// In its place, by way of the side slot: readers are sent there while the place is rewritten.
void DenseWriter::replace(std::span<const Word> record) {
  Word* const side = const_cast<Word*>(view_.chunks_.sideSlot());
  fillSlot(side, record);
  redirect_.set(record[0] + 1);
  fillSlot(slotOf(record[0]), record);
  redirect_.set(0);
}

/// A version within the window comes or goes: the count is marked as uncertain meanwhile.
void DenseWriter::changeHoles(Word version, Word holes, bool absent, std::span<const Word> record) {
  holes_.set(holes_.value() | kHolesChanging);
  if (absent) {
    markAbsent(version);
  } else {
    replace(record);
  }
  holes_.set(holes & ~kHolesChanging);
}

bool DenseWriter::remove(Word version) {
  if (empty() || version < first_.value() || version >= next_.value() || view_.isAbsent(version)) {
    return false;
  }
  if (version != first_.value()) {
    changeHoles(version, holes_.value() + 1, true, {});
    return true;
  }
  Word first = version + 1;
  while (first < next_.value() && view_.isAbsent(first)) ++first;
  const Word passed = first - version - 1;
  if (passed != 0) holes_.set(holes_.value() | kHolesChanging);
  first_.set(first);
  if (passed != 0) holes_.set((holes_.value() & ~kHolesChanging) - passed);
  chunks_.releaseBefore(first);
  return true;
}

void DenseWriter::removeAll() {
  if (holes_.value() != 0) holes_.set(holes_.value() | kHolesChanging);
  first_.set(next_.value());
  holes_.set(0);
  chunks_.releaseBefore(next_.value());
}

}  // namespace Drift
