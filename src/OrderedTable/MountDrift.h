#pragma once

#include <functional>

#include "Fenrik/String.h"
#include "KivDrift/MountInfo.h"
#include "KivSharedMem/EntityManager.h"
#include "Stavro/EntityManager.h"

namespace Asic {

/// The agent's shared-memory manager, found by the name of its state database. If "NOT_LOCAL_EM" is
/// set in the environment, to any value, a manager that this process created is not used.
QUARNBASTIL_EXPORT Fenrik::Ptr<KivSharedMem::EntityManager> sharedMemManager(
    const Stavro::EntityManager& entityManager);

namespace Impl {

/// Mounts one entity for writing. Null if the mount did not produce it.
QUARNBASTIL_EXPORT Fenrik::Ptr<KivSharedMem::Entity> mountForWriting(
    const Stavro::EntityManager& entityManager, const Fenrik::String& typeName,
    const Fenrik::String& path, const std::function<void(KivDrift::MountInfo&)>& mountInfoFn);

}  // namespace Impl

/// Call after mounting a collection. If the collection was wiped, calls `wipedFn` once and requests
/// a relaunch.
QUARNBASTIL_EXPORT void answerWiped(const Stavro::EntityManager& entityManager,
                                    const Fenrik::String& agentName,
                                    KivDrift::CollectionControl& control,
                                    const std::function<void()>& wipedFn);

/// Mounts a collection for writing. If it was wiped, reports that once, requests a relaunch, and
/// continues with the empty collection.
template <class T>
Fenrik::Ptr<T> checkAndwriteMountDrift(
    const Fenrik::Ptr<Stavro::EntityManager>& entityManager, const Fenrik::String& typeName,
    const Fenrik::String& path, const Fenrik::String& agentName,
    // NOLINTNEXTLINE(performance-unnecessary-value-param): callers hand their functions over
    std::function<void(KivDrift::MountInfo&)> mountInfoFn,
    std::function<Fenrik::Ptr<KivDrift::CollectionControl>(Fenrik::Ptr<T>&)> collectionControlFn,
    std::function<void()> wipedFn) {
  auto result =
      Fenrik::dynamicPtrCast<T>(Impl::mountForWriting(*entityManager, typeName, path, mountInfoFn));
  const auto control = collectionControlFn(result);
  answerWiped(*entityManager, agentName, *control, wipedFn);
  return result;
}

}  // namespace Asic
