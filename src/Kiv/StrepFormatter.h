#pragma once

#include <string>
#include <type_traits>

#include "Fenrik/Export.h"
#include "Fenrik/Format.h"
#include "Fenrik/Module.h"
#include "Fenrik/Ptr.h"

namespace KivFenrik::Impl {

/// Text form of a value or a node of the given type: a value's as written by its class; a node's as
/// its class and its attributes, those of the bases first. Pointers are named by their class, and
/// collections counted, so the text is bounded. An invalid type yields "?".
QUARNBASTIL_EXPORT Fenrik::String valueToStrep(Kiv::KivType type, const void* value);

}  // namespace KivFenrik::Impl

namespace Kiv {

/// A value type with a text form, used by traces, which accept string format specifications, and by
/// inspection. Nothing else has to be declared:
///
///     class TableVersion {
///      public:
///       using KivModule = struct ValueTypesModule;
///       void textAppend(std::string& text) const;     // in the .cpp
///     };
///     struct ValueTypesModule : Kiv::Module<"ValueTypes", TableVersion, ...> {};
///
/// An exception while formatting terminates the process.
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

/// Formats a counted pointer as its address.
template <class T>
struct fmt::formatter<Fenrik::Ptr<T>> : fmt::formatter<const void*> {
  auto format(const Fenrik::Ptr<T>& ptr, fmt::format_context& context) const {
    return Fenrik::formatPut(context, "{}", static_cast<const void*>(ptr.get()));
  }
};
