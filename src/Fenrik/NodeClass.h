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

/// Where the objects of a class come from.
enum class QUARNBASTIL_EXPORT Storage : std::uint8_t {
  /// The slab: objects that are made seldom and live long.
  slab,
  /// The slab with pattern 1: objects that are made and gone with every write.
  slabPerWrite,
  /// The general heap: objects too large for the slab to be worth it.
  heap,
};

/// The one base that makes a class of the system out of a plain class `T`: tracked storage,
/// factory, the end of life and the type data. `Base` is the class above it, a node.
///
///     class Lamp final : public Fenrik::NodeClass<Lamp> { ... };
///     Lamp::Ptr lamp = Fenrik::ptrIsImpl<Lamp>(arguments of its constructor);
///
/// I1. An object is made by `ptrIsImpl` alone: tracked, allocated, constructed; a constructor that
///     throws leaves neither a count nor storage behind.
/// I2. Its end is `hasNotificationActive` cleared, destructor, tracking, storage, in this order.
template <class T, class Base = Node, Storage storage = Storage::slab>
class QUARNBASTIL_EXPORT NodeClass : public Base {
 public:
  using Ptr = Fenrik::Ptr<T>;
  using PtrConst = Fenrik::Ptr<const T>;

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

  Kiv::KivType typeData() const override { return Kiv::typeOf<T>(); }

  static void* operator new(std::size_t) = delete;

  /// Every class of a hierarchy brings one along: each is a jump to the one end of its objects.
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

/// The factory of every class: tracks, allocates, constructs, and undoes what it did if the
/// constructor throws. The pointer that it returns owns the new node's first reference.
///
/// Inlined wherever it stands: the call and its arguments in memory are a quarter of what a node of
/// the slab costs from its making to its end.
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

/// Declares the named forms of a class's factory in the class that owns its objects:
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
