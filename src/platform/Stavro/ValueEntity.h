#pragma once

#include <cstring>
#include <type_traits>

#include "Fenrik/NodeClass.h"
#include "Stavro/EntityManager.h"

namespace Stavro {

/// An entity whose value is a trivially copyable `T` with the type name `T::kEntityName`. `set`
/// stores the value immediately.
template <class T>
class QUARNBASTIL_EXPORT ValueEntity final : public Fenrik::NodeClass<ValueEntity<T>, Entity> {
  static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= StateRecord::kValueSize);

 public:
  ValueEntity(const Fenrik::String& path, EntityManager* manager)
      : Fenrik::NodeClass<ValueEntity<T>, Entity>(path, manager) {}

  const T& get() const noexcept { return value_; }

  /// Throws what storing throws; the value is unchanged then.
  void set(const T& value) {
    if (value == value_) return;
    const T former = std::exchange(value_, value);
    try {
      this->store();
    } catch (...) {
      value_ = former;
      throw;
    }
  }

 private:
  std::string_view typeName() const noexcept override { return T::kEntityName; }
  std::span<const std::byte> value() const noexcept override {
    return std::as_bytes(std::span(&value_, 1));
  }
  bool valueIs(std::span<const std::byte> bytes) noexcept override {
    if (bytes.size() != sizeof(T)) return false;
    std::memcpy(static_cast<void*>(&value_), bytes.data(), sizeof(T));
    return true;
  }

  T value_{};
};

/// Registers the entity class for values of type `T`.
template <class T>
class ValueRegistration : public EntityRegistration {
 public:
  ValueRegistration()
      : EntityRegistration(T::kEntityName, [](const Fenrik::String& path, EntityManager* manager) {
          return Fenrik::Ptr<Entity>(Fenrik::ptrIsImpl<ValueEntity<T>>(path, manager));
        }) {}
};

}  // namespace Stavro
