#include <algorithm>
#include <vector>

#include "Drift/DenseCollection.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"

namespace Drift {

namespace {

constexpr Word kHolesChanging = Word{1} << 63;
/// As in the hashed collection: versions between two checks of the header.
constexpr Word kCareEach = 256;

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
  // Both ends are intact, so an impossible window results from a crash between the two stores that
  // move an empty window.
  if (next_.value() < first_.value() || next_.value() - first_.value() > mask_ + 1) {
    first_.set(next_.value());
  }
  const auto* const side = reinterpret_cast<const std::byte*>(view_.chunks_.sideSlot());
  file_.reserve(static_cast<Word>(side - file_.data()), file_.header().slotStride);
  chunks_.takeOver(first_.value(), next_.value());
  finishRedirect();
  // A crash between the two stores of `removeAll` leaves the old number of holes.
  if (empty() && holes_.value() != 0) holes_.set(0);
  if ((holes_.value() & kHolesChanging) != 0) recountHoles();
}

/// Completes a replacement interrupted after the side slot was published.
void DenseWriter::finishRedirect() {
  if (redirect_.value() == 0) return;
  const Word version = redirect_.value() - 1;
  if (!empty() && version >= first_.value() && version < next_.value()) {
    std::vector<Word> record(view_.recordWords());
    if (view_.copySlot(view_.chunks_.sideSlot(), version, record) == DenseView::Slot::whole) {
      const Piece whole{0, record.data(), record.size() * sizeof(Word)};
      fillSlot(slotOf(version), version, Pieces(&whole, 1));
    }
  }
  redirect_.set(0);
}

void DenseWriter::recountHoles() {
  holes_.set(view_.countAbsent({first_.value(), next_.value()}, view_.holes_.stamp()));
}

void DenseWriter::fillSlot(Word* slot, Word version, Pieces pieces) noexcept {
  const auto low = static_cast<std::uint32_t>(version);
  const std::uint32_t crc = Seal::kLoops.copyIn(slot + 1, pieces, view_.recordWords(), low);
  storeWord(slot, Seal::sealWord(crc, low));
}

void DenseWriter::markAbsent(Word version) noexcept {
  storeWord(slotOf(version), Seal::absentSeal(static_cast<std::uint32_t>(version)));
}

void DenseWriter::restoreHeader() noexcept {
  for (CheckedWordWriter* word : {&first_, &next_, &holes_, &redirect_}) word->restore();
}

void DenseWriter::checkRoom(Word first, Word next) const {
  // Also refuses the highest number, which has no successor.
  if (next > first && next - first <= mask_ + 1) return;
  throw CollectionFullException(Fenrik::formatString(
      "{}: full: versions {} to {} are {} places, the ring has {} for its limit of {}; let the low "
      "end move up first",
      file_.path(), first, next - 1, next - first, mask_ + 1, file_.header().capacity));
}

void DenseWriter::makeRoom(Word records) {
  file_.requireOwner();
  if (records == 0) return;
  checkRoom(empty() ? next_.value() : first_.value(), next_.value() + records);
  chunks_.reserveFor(next_.value(), next_.value() + records - 1);
}

void DenseWriter::prefetch(Word ahead) const noexcept {
  const Word* const slot = view_.chunks_.slotOf(next_.value() + ahead);
  if (slot == nullptr) return;
  for (Word word = 0; word < 1 + view_.recordWords(); word += 8) {
    __builtin_prefetch(slot + word, 1);
  }
}

void DenseWriter::set(std::span<const Word> record) {
  const Piece whole{0, record.data(), record.size_bytes()};
  set(record[0], Pieces(&whole, 1));
}

void DenseWriter::set(Word version, Pieces pieces) {
  file_.requireOwner();
  if (empty() || version >= next_.value()) {
    append(version, pieces);
  } else if (version < first_.value()) {
    prepend(version, pieces);
  } else if (view_.isAbsent(version)) {
    changeHoles(holes_.value() - 1, [&] { replace(version, pieces); });
  } else {
    replace(version, pieces);
  }
}

/// Appends at the end of the window, or as its only record. Skipped versions become absent.
void DenseWriter::append(Word version, Pieces pieces) {
  const Word first = empty() ? version : first_.value();
  checkRoom(first, version + 1);
  const Word from = empty() ? version : next_.value();
  if (empty() && version != next_.value()) {
    // The chunks between an empty window and its new position are not needed.
    chunks_.releaseBefore(version);
    chunks_.releaseBehind(version);
  }
  chunks_.reserveFor(from, version);
  if (empty() && first_.value() != version) {
    // The window is empty: moves it before opening it. When it moves up, `first` is stored first,
    // so that a reader that sees only one end moved still finds it empty.
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
  fillSlot(slotOf(version), version, pieces);
  if (version % kCareEach == 0) restoreHeader();
  moveEnd(next_, version + 1, version - from);
}

/// Moves an end of the window outwards, over absent versions.
void DenseWriter::moveEnd(CheckedWordWriter& end, Word value, Word absent) noexcept {
  const Word holes = holes_.value() + absent;
  if (absent != 0) holes_.set(holes_.value() | kHolesChanging);
  end.set(value);
  if (absent != 0) holes_.set(holes);
}

void DenseWriter::prepend(Word version, Pieces pieces) {
  checkRoom(version, next_.value());
  chunks_.reserveFor(version, first_.value() - 1);
  for (Word absent = version + 1; absent < first_.value(); ++absent) markAbsent(absent);
  fillSlot(slotOf(version), version, pieces);
  moveEnd(first_, version, first_.value() - version - 1);
}

/// Replaces in place: readers are redirected to the side slot while the slot is rewritten.
void DenseWriter::replace(Word version, Pieces pieces) {
  Word* const side = const_cast<Word*>(view_.chunks_.sideSlot());
  fillSlot(side, version, pieces);
  redirect_.set(version + 1);
  fillSlot(slotOf(version), version, pieces);
  redirect_.set(0);
}

/// Marks the number of holes as uncertain while a version within the window is added or removed.
template <class Change>
void DenseWriter::changeHoles(Word holes, Change change) {
  holes_.set(holes_.value() | kHolesChanging);
  change();
  holes_.set(holes & ~kHolesChanging);
}

bool DenseWriter::remove(Word version) {
  file_.requireOwner();
  if (empty() || version < first_.value() || version >= next_.value()) return false;
  if (holes_.value() != 0 && view_.isAbsent(version)) return false;
  if (version == first_.value()) {
    removeFirst();
  } else {
    changeHoles(holes_.value() + 1, [&] { markAbsent(version); });
  }
  return true;
}

/// Moves the low end to the next version that is not absent.
void DenseWriter::removeFirst() noexcept {
  const Word version = first_.value();
  Word first = version + 1;
  while (holes_.value() != 0 && first < next_.value() && view_.isAbsent(first)) ++first;
  const Word passed = first - version - 1;
  if (passed != 0) holes_.set(holes_.value() | kHolesChanging);
  first_.set(first);
  if (passed != 0) holes_.set((holes_.value() & ~kHolesChanging) - passed);
  chunks_.releaseBefore(first);
}

void DenseWriter::removeThrough(Word version) {
  file_.requireOwner();
  while (!empty() && first_.value() <= version) removeFirst();
}

void DenseWriter::removeAll() {
  file_.requireOwner();
  if (holes_.value() != 0) holes_.set(holes_.value() | kHolesChanging);
  first_.set(next_.value());
  holes_.set(0);
  chunks_.releaseBefore(next_.value());
}

}  // namespace Drift
