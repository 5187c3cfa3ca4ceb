#pragma once

#include <string>
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

/// A value type with a text form, which traces print with the format specifications of text and
/// inspection shows; nothing else needs to be declared:
///
///     class TableVersion {
///      public:
///       using KivModule = struct ValueTypesModule;
///       void textAppend(std::string& text) const;     // in the .cpp
///     };
///     struct ValueTypesModule : Kiv::Module<"ValueTypes", TableVersion, ...> {};
///
/// An exception of the text form ends the process.
template <class T>
concept TextValue =
    !std::is_base_of_v<Fenrik::Node, T> && requires(const T& value, std::string& text) {
  typename T::KivModule;
  value.textAppend(text);
};

}  // namespace Kiv

template <Kiv::TextValue T>
struct fmt::formatter<T> : Fenrik::TextFormatter {
  auto format(const T& value, fmt::format_context& context) const noexcept {
    std::string text;
    value.textAppend(text);
    return put(text, context);
  }
};

/// A counted pointer prints as the raw pointer.
template <class T>
struct fmt::formatter<Fenrik::Ptr<T>> : fmt::formatter<const void*> {
  auto format(const Fenrik::Ptr<T>& ptr, fmt::format_context& context) const {
    return Fenrik::formatPut(context, "{}", static_cast<const void*>(ptr.get()));
  }
};
