#pragma once

#include <map>
#include <string>
#include <vector>

#include "Drift/Directory.h"
#include "Fenrik/Export.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/HashMap2018.h"
#include "KivDrift/MountInfo.h"
#include "KivSharedMem/Entity.h"

namespace KivSharedMem {

class QUARNBASTIL_EXPORT EntityManager;

/// Selects the entities to find.
enum class KivSharedMemType : unsigned {
  mounted = 0,  ///< entities mounted by this process
  stored = 1,   ///< entities with a collection in the directory, mounted or not
};

/// The paths of the entities found.
class QUARNBASTIL_EXPORT EntityColl final : public Fenrik::NodeClass<EntityColl> {
 public:
  struct QUARNBASTIL_EXPORT PathOfEntity {
    const Fenrik::String& operator()(const Fenrik::String& path) const noexcept { return path; }
  };
  using HN_EntityPath = Kiv::Hm2018NI<0x27d4eb2f, Fenrik::String, Fenrik::String, PathOfEntity>;
  using Map = Kiv::HashMap2018<HN_EntityPath, Fenrik::String, Fenrik::String>;

  EntityColl();
  ~EntityColl() override;

  unsigned entityCount() const noexcept { return paths_.memberCount(); }
  /// In unspecified order.
  const Map& paths() const noexcept { return paths_; }

 private:
  friend class EntityManager;

  Map paths_;
};

/// Collects mounts and carries them out together.
class QUARNBASTIL_EXPORT MountGroup : public Fenrik::NodeClass<MountGroup> {
 public:
  explicit MountGroup(Fenrik::Ptr<EntityManager> manager);
  ~MountGroup() override;

  /// One requested mount.
  class QUARNBASTIL_EXPORT Request : public Fenrik::NodeClass<Request> {
   public:
    Request(Fenrik::String path, Fenrik::String typeName, KivDrift::MountInfo info,
            const EntityType* type = nullptr);
    ~Request() override;

    /// Path of the entity.
    const Fenrik::String path;
    /// Name of the entity's type.
    const Fenrik::String typeName;
    /// Requested properties.
    const KivDrift::MountInfo info;
    /// Null if no type is registered under the name.
    const EntityType* const type;
  };

  /// Requests the mount of one entity; `doClose` carries it out.
  virtual Fenrik::Ptr<Request> mount(const Fenrik::String& path, const Fenrik::String& typeName,
                                     const KivDrift::MountInfo& info);
  /// As above, for a type that need not be registered. REQUIRES: `type` outlives the entity.
  Fenrik::Ptr<Request> mount(const Fenrik::String& path, const EntityType& type,
                             const KivDrift::MountInfo& info);

  /// Carries out the mounts in the order of the requests. Entities already mounted are unchanged.
  /// Throws `Drift::MountException`; mounts before the failed one remain.
  void doClose();

 private:
  Fenrik::Ptr<EntityManager> manager_;
  std::vector<Fenrik::Ptr<Request>> requests_;
};

/// The shared-memory manager: a directory whose files are collections, and the entities in it that
/// this process has mounted.
///
/// Threads: the table thread. Any number of managers, in any processes, can use one directory; a
/// collection has one writer at a time.
class QUARNBASTIL_EXPORT EntityManager final : public Fenrik::NodeClass<EntityManager> {
 public:
  /// Parent of the directories of the machine's managers.
  static constexpr const char* kDefaultRoot = "/dev/shm";

  /// Opens `directory`; if it is empty, the directory with the manager's name below the default
  /// root. Throws `Drift::MountException`.
  EntityManager(const Fenrik::String& name, const Fenrik::String& directory,
                Drift::Directory::Access access);
  ~EntityManager() override;

  /// The manager with this name, for writing. If `local` is set and a manager created by this
  /// process under the name exists, returns that; otherwise the machine's manager, whose directory
  /// has that name below the default root.
  static Fenrik::Ptr<EntityManager> getEntityManager(const Fenrik::String& name, bool local);

  Fenrik::Ptr<MountGroup> getMountGroup();

  /// The mounted entity with this path, or null.
  Fenrik::Ptr<Entity> getEntity(const Fenrik::String& path) const;

  /// The entities whose paths begin with `path`. Throws `Drift::MountException` if the directory
  /// cannot be read.
  Fenrik::Ptr<EntityColl> findEntities(const Fenrik::String& path, KivSharedMemType type) const;

  /// Unmounts an entity. Its collection remains.
  void entityDel(const Fenrik::String& path);

  const Fenrik::String& name() const noexcept { return name_; }
  const Drift::Directory& directory() const noexcept { return directory_; }

 private:
  friend class MountGroup;

  void mount(const MountGroup::Request& request);

  Fenrik::String name_;
  Drift::Directory directory_;
  std::map<Fenrik::String, Fenrik::Ptr<Entity>> entities_;
};

}  // namespace KivSharedMem
