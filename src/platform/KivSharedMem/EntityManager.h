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

/// Which entities are looked for.
enum class KivSharedMemType : unsigned {
  mounted = 0,  ///< those that this process has mounted
  stored = 1,   ///< those that have a collection in the directory, mounted or not
};

/// The paths of the entities that were found.
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
  /// In no order that may be relied on.
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

  /// One mount that was asked for.
  class QUARNBASTIL_EXPORT Request : public Fenrik::NodeClass<Request> {
   public:
    Request(Fenrik::String path, Fenrik::String typeName, KivDrift::MountInfo info,
            const EntityType* type = nullptr);
    ~Request() override;

    const Fenrik::String path;
    const Fenrik::String typeName;
    const KivDrift::MountInfo info;
    /// Null: no type is entered under the name.
    const EntityType* const type;
  };

  /// Asks for the mount of one entity; it is carried out by `doClose`.
  virtual Fenrik::Ptr<Request> mount(const Fenrik::String& path, const Fenrik::String& typeName,
                                     const KivDrift::MountInfo& info);
  /// As above, of a type that need not be entered under its name and outlives the entity.
  Fenrik::Ptr<Request> mount(const Fenrik::String& path, const EntityType& type,
                             const KivDrift::MountInfo& info);

  /// Carries the mounts out, in the order in which they were asked for; they are complete on
  /// return. An entity that is mounted already stays as it is. Throws `Drift::MountException`, with
  /// the mounts before the failed one in place.
  void doClose();

 private:
  Fenrik::Ptr<EntityManager> manager_;
  std::vector<Fenrik::Ptr<Request>> requests_;
};

/// The shared-memory manager: a directory whose files are collections, and the entities of it that
/// this process has mounted.
///
/// Threads: the table thread. Any number of managers, in any processes, may stand over one
/// directory; a collection has one writer at a time.
class QUARNBASTIL_EXPORT EntityManager final : public Fenrik::NodeClass<EntityManager> {
 public:
  /// Where the machine's managers have their directories.
  static constexpr const char* kDefaultRoot = "/dev/shm";

  /// Over a directory; an empty one means the manager's name below the default root. Throws
  /// `Drift::MountException`.
  EntityManager(const Fenrik::String& name, const Fenrik::String& directory,
                Drift::Directory::Access access);
  ~EntityManager() override;

  /// The manager of a name, for writing. With `local` true the one that this process made itself
  /// under the name, while it lives; otherwise, and with `local` false in any case, the machine's:
  /// the directory of that name below the default root.
  static Fenrik::Ptr<EntityManager> getEntityManager(const Fenrik::String& name, bool local);

  Fenrik::Ptr<MountGroup> getMountGroup();

  /// The mounted entity of the path, or null.
  Fenrik::Ptr<Entity> getEntity(const Fenrik::String& path) const;

  /// The entities whose path begins with `path`. Throws `Drift::MountException` if the directory
  /// cannot be read.
  Fenrik::Ptr<EntityColl> findEntities(const Fenrik::String& path, KivSharedMemType type) const;

  /// Lets go of a mounted entity; its collection stays.
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
