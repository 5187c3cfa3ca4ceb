#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>  // declares std::string
#include <span>
#include <string_view>

#include "Fenrik/Export.h"
#include "Fenrik/FieldId.h"

namespace Kiv {

/// How an attribute is held, and with it how it is reached.
enum class AttributeKind : std::uint8_t { value, pointer, keyed, queue, function };

/// One row of a class's attribute table.
struct AttributeFact {
  Fenrik::FieldId fieldId;
  const char* name;
  AttributeKind kind;
};

/// What is known of one class at run time.
struct TypeFacts {
  std::string_view name;
  /// Rising by number, which is the order of declaration.
  std::span<const AttributeFact> attributes;
  /// Appends the text form of a value of the class; null when the class has none of its own.
  void (*textAppend)(const void* value, std::string& text) = nullptr;
};

/// The classes of one source, in the order of their type indices.
struct ModuleFacts {
  std::string_view name;
  std::span<const TypeFacts> types;
};

/// Names a class: its module and its index in it. A default value names none.
class QUARNBASTIL_EXPORT KivType {
 public:
  constexpr KivType() noexcept = default;
  constexpr KivType(const ModuleFacts* module, std::uint8_t index) noexcept
      : module_(module), index_(index) {}

  constexpr bool valid() const noexcept { return module_ != nullptr; }
  constexpr const ModuleFacts* module() const noexcept { return module_; }
  constexpr std::uint8_t index() const noexcept { return index_; }

  /// The facts of the class; null for a value that names none.
  const TypeFacts* facts() const noexcept;
  /// The attribute's row; null when the class has none of that number or name.
  const AttributeFact* attribute(Fenrik::FieldId fieldId) const noexcept;
  const AttributeFact* attribute(std::string_view name) const noexcept;

  friend constexpr bool operator==(const KivType&, const KivType&) noexcept = default;

 private:
  /// Null for a type that names no class.
  const ModuleFacts* module_ = nullptr;
  /// Position among the module's types.
  std::uint8_t index_ = 0;
};

}  // namespace Kiv
