#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <span>
#include <string_view>

#include "Drift/Directory.h"
#include "Drift/DriftFile.h"
#include "Drift/HashedCollection.h"
#include "Fenrik/Export.h"
#include "Fenrik/NodeClass.h"
#include "Stavro/StateRecord.h"

namespace Stavro {

class QUARNBASTIL_EXPORT EntityManager;

/// A typed object of the state database, identified by its path. Its class defines how the value is
/// stored; mutators store it immediately.
class QUARNBASTIL_EXPORT Entity : public Fenrik::Node {
 public:
  ~Entity() override;

  const Fenrik::String& path() const noexcept { return path_; }

 protected:
  Entity(Fenrik::String path, EntityManager* manager);

  /// Stores the value. Readers in other processes see the old or the new one. Throws
  /// `Drift::NoSpaceException` or `Drift::CollectionFullException`; nothing has changed then.
  void store();

 private:
  friend class EntityManager;

  virtual std::string_view typeName() const noexcept = 0;
  /// The value as at most `StateRecord::kValueSize` bytes.
  virtual std::span<const std::byte> value() const noexcept = 0;
  /// Sets the value from bytes. False if they are not a value of this class.
  virtual bool valueIs(std::span<const std::byte> bytes) noexcept = 0;

  Fenrik::String path_;
  EntityManager* manager_;
};

/// Registers an entity class under its type name, for the lifetime of the program.
class QUARNBASTIL_EXPORT EntityRegistration {
 public:
  using Make = Fenrik::Ptr<Entity> (*)(const Fenrik::String& path, EntityManager* manager);

  EntityRegistration(std::string_view typeName, Make make);
  static Make find(std::string_view typeName);
};

/// The state database: typed entities by path, stored in one collection of the agent's directory,
/// so that they outlive the process and other processes can observe them.
///
/// Threads: the table thread. One process writes; any number read.
class QUARNBASTIL_EXPORT EntityManager final : public Fenrik::NodeClass<EntityManager> {
 public:
  /// Maximum number of entities; an agent uses a handful.
  static constexpr Drift::Word kCapacity = 1024;

  /// `name` and `local` select the agent's shared-memory manager. An empty `directory` means the
  /// one with that name below the default root. Throws `Drift::MountException`.
  EntityManager(const Fenrik::String& name, bool local, const Fenrik::String& directory,
                Drift::Directory::Access access);
  ~EntityManager() override;

  const Fenrik::String& name() const noexcept { return name_; }
  bool local() const noexcept { return local_; }

  /// The entity at the path with its current value; null if there is none, or if its class is
  /// unknown in this process. Throws `Fenrik::CorruptionDetectedException`.
  Fenrik::Ptr<Entity> getEntity(const Fenrik::String& path) const;

  /// The entity of class `T` at the path, created with its default value if absent. Replaces an
  /// entity of another class.
  template <class T>
  Fenrik::Ptr<T> entityIs(const Fenrik::String& path) {
    const auto found = Fenrik::dynamicPtrCast<T>(getEntity(path));
    if (found != nullptr) return found;
    const auto made = Fenrik::ptrIsImpl<T>(path, this);
    entityStore(made);
    return made;
  }

  /// Removes the entity. False if it does not exist.
  bool entityDel(const Fenrik::String& path);

  /// `changes` is a count of changes. `waitForChange` sleeps until it differs from `seen` or the
  /// timeout, and returns whether it differs.
  std::uint32_t changes() const noexcept { return file_->doorbell(); }
  bool waitForChange(std::uint32_t seen, std::chrono::nanoseconds timeout) const {
    return file_->waitForRing(seen, timeout);
  }

  Drift::MountStage mountStage() const noexcept { return file_->stage(); }

 private:
  friend class Entity;

  /// Path of the collection's file in the directory.
  static constexpr const char* kCollectionPath = "stavro/entities";

  void entityStore(const Fenrik::Ptr<Entity>& entity);
  void entityStore(const Entity& entity);

  Fenrik::String name_;
  bool local_;
  Drift::Directory directory_;
  std::unique_ptr<Drift::DriftFile> file_;
  std::unique_ptr<Drift::HashedView> view_;
  std::unique_ptr<Drift::HashedWriter> writer_;
  /// Entities handed out, so that each path has only one object.
  mutable std::map<Fenrik::String, Fenrik::Ptr<Entity>> entities_;
};

}  // namespace Stavro
