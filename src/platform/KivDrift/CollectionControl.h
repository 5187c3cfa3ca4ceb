#pragma once

#include "Drift/DriftFile.h"
#include "Fenrik/NodeClass.h"

namespace KivDrift {

/// Control object of one collection: values that outlive the process.
///
/// Process and thread: set by the collection's writer on its table thread; read by any process.
class QUARNBASTIL_EXPORT CollectionControl final : public Fenrik::NodeClass<CollectionControl> {
 public:
  /// `file` belongs to a collection mounted for reading or writing, and must outlive the object.
  explicit CollectionControl(Drift::DriftFile& file);
  ~CollectionControl() override;

  /// The owner's number. Throws `Fenrik::CorruptionDetectedException` if both copies are damaged.
  unsigned long long scratchpad() const;
  /// Stores the owner's number with the collection. REQUIRES: mounted for writing.
  void scratchpadIs(unsigned long long value);

  /// For logs: the highest version that a follower may read.
  unsigned long long announced() const;
  /// REQUIRES: mounted for writing.
  void announcedIs(unsigned long long version);

  /// Whether the collection was unusable and was rebuilt empty.
  bool wiped() const;
  void clearWiped();

  /// Outcome of the mount, and the reason of a rebuild.
  Drift::MountStage mountStage() const noexcept { return file_.stage(); }
  const Fenrik::String& mountReason() const noexcept { return file_.reason(); }

  /// Changes whenever another writer takes the collection over.
  unsigned long long writerGeneration() const;

 private:
  unsigned long long load(Drift::Format::Line line, const char* what) const;

  Drift::DriftFile& file_;
  Drift::CheckedWordWriter scratchpad_;
  Drift::CheckedWordWriter announced_;
};

}  // namespace KivDrift
