#include "KivSharedMem/EntityManager.h"

#include "Fenrik/Format.h"
#include "KivSharedMem/Collection.h"

namespace KivSharedMem {

namespace {

/// The managers that this process created, the newest of each name; not owned. Never destroyed,
/// because a program's global managers may outlive the library's static objects.
std::map<Fenrik::String, EntityManager*>& localManagers() {
  static auto& all = *new std::map<Fenrik::String, EntityManager*>;
  return all;
}

std::string directoryOf(const Fenrik::String& name, const Fenrik::String& directory) {
  if (!directory.empty()) return directory.str();
  return std::string(EntityManager::kDefaultRoot) + "/" + Drift::Directory::fileNameOf(name.view());
}

[[noreturn]] void refuse(const Fenrik::String& path, const Fenrik::String& why) {
  throw Drift::MountException(Drift::MountStage::refused,
                              Fenrik::formatString("cannot mount {}: {}", path, why));
}

}  // namespace

EntityColl::EntityColl() = default;
EntityColl::~EntityColl() = default;

MountGroup::Request::Request(Fenrik::String path, Fenrik::String typeName, KivDrift::MountInfo info,
                             const EntityType* type)
    : path(std::move(path)),
      typeName(std::move(typeName)),
      info(std::move(info)),
      type(type != nullptr ? type : EntityRegistration::find(this->typeName.view())) {}
MountGroup::Request::~Request() = default;

MountGroup::MountGroup(Fenrik::Ptr<EntityManager> manager) : manager_(std::move(manager)) {}
MountGroup::~MountGroup() = default;

Fenrik::Ptr<MountGroup::Request> MountGroup::mount(const Fenrik::String& path,
                                                   const Fenrik::String& typeName,
                                                   const KivDrift::MountInfo& info) {
  requests_.push_back(Fenrik::ptrIsImpl<Request>(path, typeName, info));
  return requests_.back();
}

Fenrik::Ptr<MountGroup::Request> MountGroup::mount(const Fenrik::String& path,
                                                   const EntityType& type,
                                                   const KivDrift::MountInfo& info) {
  requests_.push_back(Fenrik::ptrIsImpl<Request>(path, Fenrik::String(type.typeName), info, &type));
  return requests_.back();
}

void MountGroup::doClose() {
  const std::vector<Fenrik::Ptr<Request>> requests = std::exchange(requests_, {});
  for (const Fenrik::Ptr<Request>& request : requests) manager_->mount(*request);
}

EntityManager::EntityManager(const Fenrik::String& name, const Fenrik::String& directory,
                             Drift::Directory::Access access)
    : name_(name), directory_(directoryOf(name, directory), access) {
  localManagers()[name_] = this;
}

EntityManager::~EntityManager() {
  const auto found = localManagers().find(name_);
  if (found != localManagers().end() && found->second == this) localManagers().erase(found);
}

Fenrik::Ptr<EntityManager> EntityManager::getEntityManager(const Fenrik::String& name, bool local) {
  // Managers of the machine are kept for the lifetime of the process.
  static std::map<Fenrik::String, Fenrik::Ptr<EntityManager>> machine;
  if (local) {
    const auto found = localManagers().find(name);
    if (found != localManagers().end()) return Fenrik::Ptr<EntityManager>(found->second);
  }
  const auto found = machine.find(name);
  if (found != machine.end()) return found->second;
  const auto former = localManagers().find(name);
  EntityManager* const own = former == localManagers().end() ? nullptr : former->second;
  auto made =
      Fenrik::ptrIsImpl<EntityManager>(name, Fenrik::String(), Drift::Directory::Access::write);
  if (own != nullptr) localManagers()[name] = own;
  machine.emplace(name, made);
  return made;
}

Fenrik::Ptr<MountGroup> EntityManager::getMountGroup() {
  return Fenrik::ptrIsImpl<MountGroup>(Fenrik::Ptr<EntityManager>(this));
}

Fenrik::Ptr<Entity> EntityManager::getEntity(const Fenrik::String& path) const {
  const auto found = entities_.find(path);
  return found == entities_.end() ? nullptr : found->second;
}

Fenrik::Ptr<EntityColl> EntityManager::findEntities(const Fenrik::String& path,
                                                    KivSharedMemType type) const {
  auto found = Fenrik::ptrIsImpl<EntityColl>();
  if (type == KivSharedMemType::stored) {
    for (const std::string& stored : directory_.entities(path.view())) {
      found->paths_.newMember(EntityColl::HN_EntityPath(Fenrik::String(stored)));
    }
    return found;
  }
  for (const auto& [mounted, entity] : entities_) {
    if (mounted.view().starts_with(path.view())) {
      found->paths_.newMember(EntityColl::HN_EntityPath(mounted));
    }
  }
  return found;
}

void EntityManager::entityDel(const Fenrik::String& path) { entities_.erase(path); }

void EntityManager::mount(const MountGroup::Request& request) {
  if (entities_.contains(request.path)) return;
  const EntityType* const type = request.type;
  if (type == nullptr) {
    refuse(request.path, Fenrik::formatString("no class of entities is called \"{}\"; link the "
                                              "library that declares it",
                                              request.typeName));
  }
  const auto& collections = request.info.collections();
  if (collections.size() != 1 || collections[0].attributeName != type->attributeName) {
    refuse(request.path, Fenrik::formatString("\"{}\" has one collection, \"{}\"; ask for that one",
                                              request.typeName, type->attributeName));
  }
  if (collections[0].capacity == 0 || collections[0].capacity > Drift::kMaxCapacity) {
    refuse(request.path, Fenrik::formatString("its capacity of {} is not between 1 and {}",
                                              collections[0].capacity, Drift::kMaxCapacity));
  }
  const Drift::Geometry geometry{type->layout,     type->keySize,
                                 type->recordSize, collections[0].capacity,
                                 type->typeName,   type->attributeName};
  using Info = KivDrift::CollectionInfo;
  const Drift::DriftFile::Options options{
      .reserveAll = (collections[0].flags & Info::kReserveAll) != 0,
      .groupWrites = (collections[0].flags & Info::kGroupWrites) != 0};
  auto file =
      directory_.access() == Drift::Directory::Access::write
          ? Drift::DriftFile::openForWriting(directory_, request.path.view(), geometry, options)
          : Drift::DriftFile::openForReading(directory_, request.path.view(), &geometry);
  Fenrik::Ptr<Entity> entity;
  if (type->make != nullptr) {
    entity = type->make(request.path, std::move(file));
  } else if (type->layout == Drift::Format::Layout::hashed) {
    entity = Fenrik::ptrIsImpl<UntypedHashed>(request.path, std::move(file));
  } else {
    entity = Fenrik::ptrIsImpl<UntypedDense>(request.path, std::move(file));
  }
  entities_.emplace(request.path, std::move(entity));
}

}  // namespace KivSharedMem
