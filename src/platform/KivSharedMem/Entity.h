#pragma once

#include <memory>

#include "Drift/DriftFile.h"
#include "Fenrik/NodeClass.h"
#include "KivDrift/CollectionControl.h"

namespace KivSharedMem {

/// An object over one mounted collection. Its class belongs to whoever declares the collection; it
/// is made by the mount from the type name that the mount names.
class QUARNBASTIL_EXPORT Entity : public Fenrik::Node {
 public:
  ~Entity() override;

  const Fenrik::String& path() const noexcept { return path_; }
  const Fenrik::Ptr<KivDrift::CollectionControl>& collectionControl() const noexcept {
    return control_;
  }

  /// The file, for what maps do not offer: doorbell, generation, replacement.
  const Drift::DriftFile& file() const noexcept { return *file_; }

  /// Wakes the processes that wait for a change of this collection: `Drift::DriftFile::ring`.
  /// REQUIRES: mounted for writing.
  void ring(const Drift::DriftFile* listener = nullptr) noexcept { file_->ring(listener); }

 protected:
  Entity(Fenrik::String path, std::unique_ptr<Drift::DriftFile> file);

  Drift::DriftFile& mutableFile() noexcept { return *file_; }

 private:
  Fenrik::String path_;
  std::unique_ptr<Drift::DriftFile> file_;
  Fenrik::Ptr<KivDrift::CollectionControl> control_;
};

/// What the mount must know of a class of entities; constant data for the life of the program.
struct EntityType {
  std::string_view typeName;
  std::string_view attributeName;
  Drift::Format::Layout layout;
  std::uint32_t keySize;     ///< bytes
  std::uint32_t recordSize;  ///< bytes
  /// Null: the entity offers its records as words (`UntypedHashed`, `UntypedDense`).
  Fenrik::Ptr<Entity> (*make)(const Fenrik::String& path,
                              std::unique_ptr<Drift::DriftFile> file) = nullptr;
};

/// Enters a class of entities under its type name, for the life of the program. Meant for objects
/// of static storage; a name that is entered twice must mean the same class.
class QUARNBASTIL_EXPORT EntityRegistration {
 public:
  explicit EntityRegistration(const EntityType& type);

  /// The class of that name; null if there is none.
  static const EntityType* find(std::string_view typeName);
};

}  // namespace KivSharedMem
