#pragma once

#include <functional>

#include "Fenrik/String.h"
#include "KivDrift/MountInfo.h"
#include "KivSharedMem/EntityManager.h"
#include "Stavro/EntityManager.h"

namespace Asic {

/// The agent's shared-memory manager: that of its state database's name. With "NOT_LOCAL_EM" in the
/// environment, whatever its value, never one that the process made itself.
QUARNBASTIL_EXPORT Fenrik::Ptr<KivSharedMem::EntityManager> sharedMemManager(
    const Stavro::EntityManager& entityManager);

namespace Impl {

/// Mounts one entity for writing and returns it; null if it is not there after the mount.
QUARNBASTIL_EXPORT Fenrik::Ptr<KivSharedMem::Entity> mountForWriting(
    const Stavro::EntityManager& entityManager, const Fenrik::String& typeName,
    const Fenrik::String& path, const std::function<void(KivDrift::MountInfo&)>& mountInfoFn);

}  // namespace Impl

/// What follows the mount of a collection: if it was wiped, that is reported once by `wipedFn`, and
/// a relaunch is asked for.
QUARNBASTIL_EXPORT void answerWiped(const Stavro::EntityManager& entityManager,
                                    const Fenrik::String& agentName,
                                    KivDrift::CollectionControl& control,
                                    const std::function<void()>& wipedFn);

/// Mounts a collection for writing. If it was wiped, that is reported once, a relaunch is asked
/// for, and the work goes on with the empty collection.
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
