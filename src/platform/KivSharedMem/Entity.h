#pragma once

#include <memory>

#include "Drift/DriftFile.h"
#include "Fenrik/NodeClass.h"
#include "KivDrift/CollectionControl.h"

namespace KivSharedMem {

/// A mounted collection. The mount creates the object, of the class that is registered for the
/// collection's type name.
class QUARNBASTIL_EXPORT Entity : public Fenrik::Node {
 public:
  ~Entity() override;

  const Fenrik::String& path() const noexcept { return path_; }
  const Fenrik::Ptr<KivDrift::CollectionControl>& collectionControl() const noexcept {
    return control_;
  }

  /// The file, for operations that maps do not offer: doorbell, generation, replacement.
  const Drift::DriftFile& file() const noexcept { return *file_; }

  /// Wakes the processes waiting for changes of this collection, see `Drift::DriftFile::ring`.
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

/// Description of an entity class for the mount: constant data for the lifetime of the program.
struct EntityType {
  std::string_view typeName;
  std::string_view attributeName;
  Drift::Format::Layout layout;
  std::uint32_t keySize;     ///< bytes
  std::uint32_t recordSize;  ///< bytes
  /// Creates the entity. Null: records are accessed as words (`UntypedHashed`, `UntypedDense`).
  Fenrik::Ptr<Entity> (*make)(const Fenrik::String& path,
                              std::unique_ptr<Drift::DriftFile> file) = nullptr;
};

/// Registers an entity class under its type name, for the lifetime of the program. Intended for
/// static objects. Registering a name twice requires the same class.
class QUARNBASTIL_EXPORT EntityRegistration {
 public:
  explicit EntityRegistration(const EntityType& type);

  /// The class registered under the name, or null.
  static const EntityType* find(std::string_view typeName);
};

}  // namespace KivSharedMem
