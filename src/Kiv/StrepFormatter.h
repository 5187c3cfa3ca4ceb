#pragma once

#include <fmt/format.h>

#include <string_view>

#include "Fenrik/Export.h"
#include "Fenrik/Module.h"
#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"

namespace KivFenrik::Impl {

/// The text form of a value, given by its type: what the class's `textAppend` writes. A class
/// without one is told by its name alone, a type that names no class as "?".
QUARNBASTIL_EXPORT Fenrik::String valueToStrep(Kiv::KivType type, const void* value);

}  // namespace KivFenrik::Impl

namespace Kiv {

/// Formatter of a value type by its text form. A value type that stands in a module and has a
/// `void textAppend(std::string& text) const` is made printable with
///
///     template <>
///     struct fmt::formatter<Asic::UnitId> : Kiv::StrepFormatter<Asic::UnitId> {};
///
/// and then takes the format specifications of text. An exception of the text form ends the
/// process.
template <class T>
struct StrepFormatter : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(const T& value, Context& context) const noexcept {
    static_assert(
        requires { typename T::KivModule; }, "the value type names no module");
    const Fenrik::String text = KivFenrik::Impl::valueToStrep(typeOf<T>(), &value);
    return fmt::formatter<std::string_view>::format(text.view(), context);
  }
};

}  // namespace Kiv

/// A counted pointer prints as the raw pointer.
template <class T>
struct fmt::formatter<Fenrik::Ptr<T>> : fmt::formatter<const void*> {
  template <class Context>
  auto format(const Fenrik::Ptr<T>& ptr, Context& context) const {
    return fmt::formatter<const void*>::format(ptr.get(), context);
  }
};
