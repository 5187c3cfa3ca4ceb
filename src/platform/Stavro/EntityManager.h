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

/// A typed object of the state database, known by its path. Its class says how its value is
/// written; what its mutators change is stored at once.
class QUARNBASTIL_EXPORT Entity : public Fenrik::Node {
 public:
  ~Entity() override;

  const Fenrik::String& path() const noexcept { return path_; }

 protected:
  Entity(Fenrik::String path, EntityManager* manager);

  /// Stores the value: readers in other processes see the old one or the new one. Throws
  /// `Drift::NoSpaceException` or `Drift::CollectionFullException` with nothing changed.
  void store();

 private:
  friend class EntityManager;

  virtual std::string_view typeName() const noexcept = 0;
  /// The value as bytes, at most `StateRecord::kValueSize`.
  virtual std::span<const std::byte> value() const noexcept = 0;
  /// Takes the value from bytes; false if they are none of this class.
  virtual bool valueIs(std::span<const std::byte> bytes) noexcept = 0;

  Fenrik::String path_;
  EntityManager* manager_;
};

/// Enters a class of entities under its type name, for the life of the program.
class QUARNBASTIL_EXPORT EntityRegistration {
 public:
  using Make = Fenrik::Ptr<Entity> (*)(const Fenrik::String& path, EntityManager* manager);

  EntityRegistration(std::string_view typeName, Make make);
  static Make find(std::string_view typeName);
};

/// The state database: typed entities by path, kept in one collection of the agent's directory, so
/// that they outlive the process and another process sees them move.
///
/// Threads: the table thread. One process writes; any number read.
class QUARNBASTIL_EXPORT EntityManager final : public Fenrik::NodeClass<EntityManager> {
 public:
  /// Entities that the database may hold; an agent has a handful.
  static constexpr Drift::Word kCapacity = 1024;

  /// `name` and `local` are handed on to the shared-memory manager of the agent. An empty
  /// directory means the name's below the default root. Throws `Drift::MountException`.
  EntityManager(const Fenrik::String& name, bool local, const Fenrik::String& directory,
                Drift::Directory::Access access);
  ~EntityManager() override;

  const Fenrik::String& name() const noexcept { return name_; }
  bool local() const noexcept { return local_; }

  /// The entity of the path with its present value, or null if there is none, or none of a class
  /// that this process knows. Throws `Fenrik::CorruptionDetectedException`.
  Fenrik::Ptr<Entity> getEntity(const Fenrik::String& path) const;

  /// The entity of class `T` at the path, made with its default value if there is none. An entity
  /// of another class there gives way.
  template <class T>
  Fenrik::Ptr<T> entityIs(const Fenrik::String& path) {
    const auto found = Fenrik::dynamicPtrCast<T>(getEntity(path));
    if (found != nullptr) return found;
    const auto made = Fenrik::ptrIsImpl<T>(path, this);
    entityStore(made);
    return made;
  }

  /// Removes the entity; false if there was none.
  bool entityDel(const Fenrik::String& path);

  /// Sleeps until something changes behind `seen`, a former `changes()`; true if it has.
  std::uint32_t changes() const noexcept { return file_->doorbell(); }
  bool waitForChange(std::uint32_t seen, std::chrono::nanoseconds timeout) const {
    return file_->waitForRing(seen, timeout);
  }

  Drift::MountStage mountStage() const noexcept { return file_->stage(); }

 private:
  friend class Entity;

  /// The name of the collection's file within the directory.
  static constexpr const char* kCollectionPath = "stavro/entities";

  void entityStore(const Fenrik::Ptr<Entity>& entity);
  void entityStore(const Entity& entity);

  Fenrik::String name_;
  bool local_;
  Drift::Directory directory_;
  std::unique_ptr<Drift::DriftFile> file_;
  std::unique_ptr<Drift::HashedView> view_;
  std::unique_ptr<Drift::HashedWriter> writer_;
  /// Entities handed out, so that one path is one object.
  mutable std::map<Fenrik::String, Fenrik::Ptr<Entity>> entities_;
};

}  // namespace Stavro
