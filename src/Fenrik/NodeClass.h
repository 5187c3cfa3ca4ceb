#pragma once

#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Fenrik/Export.h"
#include "Fenrik/Module.h"
#include "Fenrik/Node.h"
#include "Fenrik/Ptr.h"
#include "OvSlab/AllocTrackTypeInfo.h"
#include "OvSlab/OvSlab.h"

namespace Fenrik {

/// Storage of a class's objects.
enum class QUARNBASTIL_EXPORT Storage : std::uint8_t {
  /// The slab, for objects created rarely and kept long.
  slab,
  /// The slab with pattern 1, for objects created and destroyed with every write.
  slabPerWrite,
  /// The heap, for objects too large to benefit from the slab.
  heap,
};

/// Base class that turns a plain class `T` into a class of the system, adding tracked storage,
/// factory, destruction and type data. `Base` is its base class, a node.
///
///     class Lamp final : public Fenrik::NodeClass<Lamp> { ... };
///     Lamp::Ptr lamp = Fenrik::ptrIsImpl<Lamp>(arguments of its constructor);
///
/// I1. Objects are created only by `ptrIsImpl`: tracked, allocated, constructed. If the constructor
///     throws, neither count nor storage remains.
/// I2. Destruction clears `hasNotificationActive`, calls the destructor, updates tracking, and
///     frees the storage, in this order.
template <class T, class Base = Node, Storage storage = Storage::slab>
class QUARNBASTIL_EXPORT NodeClass : public Base {
 public:
  using Ptr = Fenrik::Ptr<T>;
  using PtrConst = Fenrik::Ptr<const T>;
  using NodeBase = Base;

  /// Null until the first allocation.
  inline static Kiv::AllocTrackTypeInfo* memAllocationTracker_ = nullptr;

  using Base::Base;

  [[gnu::noinline]] void lastUserGone() override {
    this->nodeFlagSet(NodeFlag::hasNotificationActive, false);
    T* const object = static_cast<T*>(this);
    object->T::~T();
    Kiv::AllocTrackTypeInfo::trackDeallocation(memAllocationTracker_);
    storageFree(object);
  }

  /// A class without module has the type of its base.
  Kiv::KivType typeData() const override {
    const Kiv::KivType own = Kiv::typeOf<T>();
    return own.valid() ? own : Base::typeData();
  }

  static void* operator new(std::size_t) = delete;

  /// Each class of a hierarchy has its own; all forward to the single destruction of the object.
  static void operator delete(NodeClass* node, std::destroying_delete_t) noexcept {
    node->lastUserGone();
  }

 private:
  template <class U, class... Args>
  friend Fenrik::Ptr<U> ptrIsImpl(Args&&... args);

  using NodeClassOf = T;

  static constexpr auto kPattern = storage == Storage::slabPerWrite
                                       ? OvSlab::SlabAllocationPattern::perWrite
                                       : OvSlab::SlabAllocationPattern::longLived;

  static void* storageAlloc() {
    if constexpr (storage == Storage::heap) {
      static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
      return ::operator new(sizeof(T));
    } else {
      return OvSlab::slabAlloc(sizeof(T), kPattern);
    }
  }

  static void storageFree(void* object) noexcept {
    if constexpr (storage == Storage::heap) {
      ::operator delete(object);
    } else {
      OvSlab::slabFree(object, typeid(T), sizeof(T), kPattern);
    }
  }
};

/// Factory of all classes: tracks, allocates and constructs an object, and reverts this if the
/// constructor throws. The returned pointer owns the new node's first reference.
///
/// Always inlined: a call with its arguments in memory takes a quarter of the lifetime cost of a
/// slab node.
template <class T, class... Args>
[[gnu::always_inline]] inline Ptr<T> ptrIsImpl(Args&&... args) {
  static_assert(std::is_same_v<typename T::NodeClassOf, T>,
                "T must derive from NodeClass<T, ...>, or its storage is told for another class");
  Kiv::AllocTrackTypeInfo::_trackAllocation(&T::memAllocationTracker_, typeid(T), sizeof(T),
                                            alignof(T));
  struct Undo {
    void* storage = nullptr;
    ~Undo() {
      if (!armed) return;
      Kiv::AllocTrackTypeInfo::trackDeallocation(T::memAllocationTracker_);
      if (storage != nullptr) T::storageFree(storage);
    }
    bool armed = true;
  } undo;
  undo.storage = T::storageAlloc();
  T* const object = ::new (undo.storage) T(std::forward<Args>(args)...);
  undo.armed = false;
  return Ptr<T>(object, AdoptReference{});
}

}  // namespace Fenrik

/// Declares the named factory functions of a class within the class that owns its objects:
/// `entryHandleFactory(...)` and `EntryHandleIs(...)` for `FENRIK_FACTORY(entryHandle,
/// EntryHandle)`.
#define FENRIK_FACTORY(lowerName, ClassName)                                   \
  template <class... FactoryArgs>                                              \
  static ::Fenrik::Ptr<ClassName> lowerName##Factory(FactoryArgs&&... args) {  \
    return ::Fenrik::ptrIsImpl<ClassName>(std::forward<FactoryArgs>(args)...); \
  }                                                                            \
  template <class... FactoryArgs>                                              \
  static ::Fenrik::Ptr<ClassName> ClassName##Is(FactoryArgs&&... args) {       \
    return lowerName##Factory(std::forward<FactoryArgs>(args)...);             \
  }                                                                            \
  static_assert(true)
