#include "KivDrift/CollectionControl.h"

#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"

namespace KivDrift {

CollectionControl::CollectionControl(Drift::DriftFile& file)
    : file_(file),
      scratchpad_(file.data(), Drift::Format::Line::scratchpad),
      announced_(file.data(), Drift::Format::Line::announced) {
  if (file.writable()) FENRIK_ASSERT(scratchpad_.adopt() && announced_.adopt());
}
CollectionControl::~CollectionControl() = default;

unsigned long long CollectionControl::load(Drift::Format::Line line, const char* what) const {
  const auto value = Drift::CheckedWord(file_.data(), line).load();
  if (value) return *value;
  throw Fenrik::CorruptionDetectedException(
      Fenrik::formatString("{}: {} does not prove itself", file_.path(), what));
}

unsigned long long CollectionControl::scratchpad() const {
  return load(Drift::Format::Line::scratchpad, "the scratchpad");
}

void CollectionControl::scratchpadIs(unsigned long long value) {
  file_.requireOwner();
  scratchpad_.set(value);
}

unsigned long long CollectionControl::announced() const {
  return load(Drift::Format::Line::announced, "the announced version");
}

void CollectionControl::announcedIs(unsigned long long version) {
  file_.requireOwner();
  announced_.set(version);
}

bool CollectionControl::wiped() const {
  return load(Drift::Format::Line::wiped, "the wiped flag") != 0;
}

void CollectionControl::clearWiped() {
  file_.requireOwner();
  Drift::CheckedWordWriter wiped(file_.data(), Drift::Format::Line::wiped);
  FENRIK_ASSERT(wiped.adopt());
  wiped.set(0);
}

unsigned long long CollectionControl::writerGeneration() const {
  return load(Drift::Format::Line::writerGeneration, "the writer generation");
}

}  // namespace KivDrift
