#include "KivSharedMem/Collection.h"

#include "Fenrik/Assert.h"

namespace KivSharedMem {

namespace {

/// Counts damage of a collection without a typed map.
class Damage final : public Fenrik::NodeClass<Damage, Drift::DriftMapBase> {
 public:
  explicit Damage(const Drift::DriftFile& file)
      : Fenrik::NodeClass<Damage, Drift::DriftMapBase>(Fenrik::String(file.path())) {}
};

}  // namespace

HashedEntity::HashedEntity(Fenrik::String path, std::unique_ptr<Drift::DriftFile> file)
    : Entity(std::move(path), std::move(file)),
      damage_(Fenrik::ptrIsImpl<Damage>(this->file())),
      view_(this->file()) {
  if (this->file().writable()) writer_ = std::make_unique<Drift::HashedWriter>(mutableFile());
}
HashedEntity::~HashedEntity() = default;

Drift::HashedWriter& HashedEntity::writer() {
  FENRIK_ASSERT(writer_ != nullptr);
  return *writer_;
}

const Drift::HashedWriter& HashedEntity::writer() const {
  FENRIK_ASSERT(writer_ != nullptr);
  return *writer_;
}

void HashedEntity::damageIs(Fenrik::Ptr<Drift::DriftMapBase> map) {
  damage_ = std::move(map);
  if (writer_ != nullptr) noteDropped();
}

void HashedEntity::noteDropped() {
  if (writer().dropped() == dropped_) return;
  dropped_ = writer().dropped();
  damage_->doCorruptionDetected(Fenrik::formatString(
      "{}: {} index words did not prove themselves and were dropped", path(), dropped_));
}

DenseEntity::DenseEntity(Fenrik::String path, std::unique_ptr<Drift::DriftFile> file)
    : Entity(std::move(path), std::move(file)),
      damage_(Fenrik::ptrIsImpl<Damage>(this->file())),
      view_(this->file()) {
  if (!this->file().writable()) return;
  writer_ = std::make_unique<Drift::DenseWriter>(mutableFile());
  // The scratchpad is stored after each record, so a crash in between leaves it one behind. The log
  // is authoritative; otherwise its newest version would be issued again.
  const auto& control = collectionControl();
  if (control->scratchpad() + 1 < writer_->next()) control->scratchpadIs(writer_->next() - 1);
}
DenseEntity::~DenseEntity() = default;

Drift::DenseWriter& DenseEntity::writer() {
  FENRIK_ASSERT(writer_ != nullptr);
  return *writer_;
}

UntypedHashed::UntypedHashed(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file)
    : NodeClass(path, std::move(file)) {
  if (this->file().writable()) noteDropped();
}
UntypedHashed::~UntypedHashed() = default;

UntypedDense::UntypedDense(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file)
    : NodeClass(path, std::move(file)) {}
UntypedDense::~UntypedDense() = default;

}  // namespace KivSharedMem
