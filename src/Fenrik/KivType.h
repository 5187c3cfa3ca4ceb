#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>  // declares std::string
#include <span>
#include <string_view>

#include "Fenrik/Export.h"
#include "Fenrik/FieldId.h"

namespace Kiv {

class QUARNBASTIL_EXPORT KivType;
struct AttributeAccess;
struct ValueType;

/// How an attribute is stored and accessed.
enum class AttributeKind : std::uint8_t { value, pointer, keyed, queue, function };

/// One row of a class's attribute table.
struct AttributeFact {
  /// Number of the attribute in its class.
  Fenrik::FieldId fieldId;
  const char* name;    ///< name of the attribute
  AttributeKind kind;  ///< how it is stored
  /// How to read, write, walk or call it; null if nobody may.
  const AttributeAccess* access = nullptr;
};

/// Run-time information about a class.
struct TypeFacts {
  std::string_view name;  ///< name of the class
  /// In ascending order of numbers, which is the order of declaration. Without those of the bases.
  std::span<const AttributeFact> attributes;
  /// Appends the text form of a value of the class; null if it has none.
  void (*textAppend)(const void* value, std::string& text) = nullptr;
  /// The nearest base class with a module; null if there is none.
  KivType (*base)() = nullptr;
  /// The types that accesses shared by several classes refer to by number; see `TypeRef`.
  const ValueType* const* roles = nullptr;
  /// Constructs an object through its factory; null if the class offers none. See
  /// `Fenrik::HideMe::genericIfConstructFromCtorArgs`.
  void (*construct)(void* out, void* const* arguments) = nullptr;
};

/// The classes of one source, in the order of their type indices.
struct ModuleFacts {
  std::string_view name;             ///< name of the module
  std::span<const TypeFacts> types;  ///< the classes
};

/// Identifies a class by its module and its index in the module. A default value is invalid.
class QUARNBASTIL_EXPORT KivType {
 public:
  constexpr KivType() noexcept = default;
  constexpr KivType(const ModuleFacts* module, std::uint8_t index) noexcept
      : module_(module), index_(index) {}

  constexpr bool valid() const noexcept { return module_ != nullptr; }
  constexpr const ModuleFacts* module() const noexcept { return module_; }
  constexpr std::uint8_t index() const noexcept { return index_; }

  /// Information about the class, or null if this value is invalid.
  const TypeFacts* facts() const noexcept;
  /// The base class, or an invalid value.
  KivType base() const;
  /// The row of the attribute with this number or name, or null. Bases are searched too.
  const AttributeFact* attribute(Fenrik::FieldId fieldId) const;
  const AttributeFact* attribute(std::string_view name) const;

  friend constexpr bool operator==(const KivType&, const KivType&) noexcept = default;

 private:
  /// Null if this value is invalid.
  const ModuleFacts* module_ = nullptr;
  /// Index of the class in the module.
  std::uint8_t index_ = 0;
};

}  // namespace Kiv
