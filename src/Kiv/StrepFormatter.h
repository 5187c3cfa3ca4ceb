#pragma once

#include <type_traits>

#include "Fenrik/Export.h"
#include "Fenrik/Format.h"
#include "Fenrik/Module.h"
#include "Fenrik/Ptr.h"

namespace KivFenrik::Impl {

/// The text form of a value, given by its type: what the class's `textAppend` writes. A class
/// without one is told by its name alone, a type that names no class as "?".
QUARNBASTIL_EXPORT Fenrik::String valueToStrep(Kiv::KivType type, const void* value);

}  // namespace KivFenrik::Impl

namespace Kiv {

/// A value type that stands in a module. Traces print it by its text form, with the format
/// specifications of text, and nothing else needs to be declared:
///
///     class UnitId {
///      public:
///       using KivModule = ValueModule;
///       void textAppend(std::string& text) const;     // in the .cpp
///     };
///     struct ValueModule : Kiv::Module<"Values", UnitId, ...> {};
///
/// An exception of the text form ends the process.
template <class T>
concept TextValue = requires {
  typename T::KivModule;
}
&&!std::is_base_of_v<Fenrik::Node, T>;

}  // namespace Kiv

template <Kiv::TextValue T>
struct fmt::formatter<T> : Fenrik::TextFormatter {
  auto format(const T& value, fmt::format_context& context) const noexcept {
    return put(KivFenrik::Impl::valueToStrep(Kiv::typeOf<T>(), &value).view(), context);
  }
};

/// A counted pointer prints as the raw pointer.
template <class T>
struct fmt::formatter<Fenrik::Ptr<T>> : fmt::formatter<const void*> {
  auto format(const Fenrik::Ptr<T>& ptr, fmt::format_context& context) const {
    return Fenrik::formatPut(context, "{}", static_cast<const void*>(ptr.get()));
  }
};
