#include "OrderedTable/MountDrift.h"

#include <cstdlib>

#include "OrderedTable/GenId.h"
#include "Stavro/ValueEntity.h"

namespace Asic {

Fenrik::Ptr<KivSharedMem::EntityManager> sharedMemManager(
    const Stavro::EntityManager& entityManager) {
  using Manager = KivSharedMem::EntityManager;
  auto manager = Manager::getEntityManager(entityManager.name(), entityManager.local());
  if (std::getenv("NOT_LOCAL_EM") != nullptr) {
    manager = Manager::getEntityManager(entityManager.name(), false);
  }
  return manager;
}

namespace {

/// Requests a restart of the agents that depend on the lost collection, through the agent's
/// relaunch generation in the state database. If that entity is absent or unreadable, the request
/// is dropped.
void requestRelaunch(const Stavro::EntityManager& entityManager, const Fenrik::String& agentName) {
  try {
    const auto entity =
        entityManager.getEntity("hardware/lodestar/agent/relaunch/config/" + agentName);
    const auto generation = Fenrik::dynamicPtrCast<Stavro::ValueEntity<GenId>>(entity);
    if (generation == nullptr) return;
    GenId next = generation->get();
    next.majorIdInc(1);
    generation->set(next);
  } catch (const Fenrik::CorruptionDetectedException&) {
    // The loss itself has been reported; failing to start would be worse.
  }
}

}  // namespace

void answerWiped(const Stavro::EntityManager& entityManager, const Fenrik::String& agentName,
                 KivDrift::CollectionControl& control, const std::function<void()>& wipedFn) {
  if (!control.wiped()) return;
  wipedFn();
  requestRelaunch(entityManager, agentName);
  control.clearWiped();
}

namespace Impl {

Fenrik::Ptr<KivSharedMem::Entity> mountForWriting(
    const Stavro::EntityManager& entityManager, const Fenrik::String& typeName,
    const Fenrik::String& path, const std::function<void(KivDrift::MountInfo&)>& mountInfoFn) {
  const auto manager = sharedMemManager(entityManager);
  const auto group = manager->getMountGroup();
  KivDrift::MountInfo mountInfo(0);
  mountInfoFn(mountInfo);
  group->mount(path, typeName, mountInfo);
  group->doClose();
  return manager->getEntity(path);
}

}  // namespace Impl
}  // namespace Asic
