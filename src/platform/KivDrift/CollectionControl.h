#pragma once

#include "Drift/DriftFile.h"
#include "Fenrik/NodeClass.h"

namespace KivDrift {

/// The control object of one collection: values that outlive the process.
///
/// Process and thread: set by the collection's writer, on its table thread; read by any process.
class QUARNBASTIL_EXPORT CollectionControl final : public Fenrik::NodeClass<CollectionControl> {
 public:
  /// Over the file of a collection that is mounted for writing or for reading; the file outlives
  /// the object.
  explicit CollectionControl(Drift::DriftFile& file);
  ~CollectionControl() override;

  /// The owner's number. Throws `Fenrik::CorruptionDetectedException` if it does not prove itself.
  unsigned long long scratchpad() const;
  /// Stores it with the collection. REQUIRES: mounted for writing.
  void scratchpadIs(unsigned long long value);

  /// Of a log: the version up to which a follower may go.
  unsigned long long announced() const;
  /// REQUIRES: mounted for writing.
  void announcedIs(unsigned long long version);

  /// The store under the collection was found unusable and was rebuilt empty.
  bool wiped() const;
  void clearWiped();

  /// How the mount ended, and why the collection was rebuilt if it was.
  Drift::MountStage mountStage() const noexcept { return file_.stage(); }
  const Fenrik::String& mountReason() const noexcept { return file_.reason(); }

  /// Moves whenever another writer takes the collection over.
  unsigned long long writerGeneration() const;

 private:
  unsigned long long load(Drift::Format::Line line, const char* what) const;

  Drift::DriftFile& file_;
  Drift::CheckedWordWriter scratchpad_;
  Drift::CheckedWordWriter announced_;
};

}  // namespace KivDrift
