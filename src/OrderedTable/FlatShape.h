#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Drift/RecordLayout.h"
#include "Fenrik/Export.h"

namespace Asic {

/// Run-time description of a flat type for code compiled once: its significant bits and its named
/// fields.
struct QUARNBASTIL_EXPORT FlatShape {
  using Word = Drift::Format::Word;

  /// Bytes of an object of the type.
  std::size_t size;
  /// For each word, the bits that belong to the value.
  std::span<const Word> mask;
  /// Groups of fields that are significant only while their presence byte is set.
  std::span<const Drift::Impl::OptionalGroup> groups;
  /// The type's fields, in order.
  std::span<const Drift::RecordField> fields;
  /// How the type is printed.
  Drift::TextForm form;

  std::size_t words() const noexcept { return mask.size(); }
  bool empty() const noexcept { return size == 0; }

  /// Copies a value to whole words; padding, absent groups and the bytes beyond its end become
  /// zero.
  void toWords(const void* value, Word* out) const noexcept;
  /// Clears the padding and absent groups of a value held in whole words.
  void makeCanonical(Word* words) const noexcept;
  /// Copies whole words of any content to an object of the type; the object is valid afterwards.
  void fromWords(const Word* words, void* value) const noexcept;
  /// Whether two objects are equal, ignoring padding and absent groups.
  bool same(const void* a, const void* b) const noexcept;
  void textAppend(std::string& text, const void* value) const;
  /// As `Drift::fromText`.
  bool fromText(std::string_view text, void* value) const;
};

namespace Impl {

/// The constants that the spans of a type's shape refer to.
template <class T>
struct ShapeOf {
  using Word = FlatShape::Word;

  static constexpr std::size_t kWords = Drift::FlatLayout<T>::kWords;
  static constexpr std::array<Word, kWords> kMask = [] {
    std::array<Word, kWords> mask{};
    constexpr auto& bytes = Drift::FlatLayout<T>::kByteMask;
    for (std::size_t i = 0; i < bytes.size(); ++i) mask[i / 8] |= Word{bytes[i]} << (i % 8 * 8);
    return mask;
  }();
  static constexpr auto& kFields = Drift::kFieldsOf<T>;
  static constexpr std::size_t kGroupCount =
      Drift::Impl::collectGroups(kFields.data(), kFields.size(), 0, nullptr);
  static constexpr std::array<Drift::Impl::OptionalGroup, kGroupCount> kGroups = [] {
    std::array<Drift::Impl::OptionalGroup, kGroupCount> groups{};
    if constexpr (kGroupCount != 0) {
      Drift::Impl::collectGroups(kFields.data(), kFields.size(), 0, groups.data());
    }
    return groups;
  }();
};

}  // namespace Impl

/// The shape of a type. A type without fields holds no data, and its shape is empty.
template <Drift::Described T>
constexpr FlatShape flatShapeOf() {
  if constexpr (Drift::kFieldsOf<T>.size() == 0) {
    return {0, {}, {}, {}, Drift::TextForm::members};
  } else {
    using Shape = Impl::ShapeOf<T>;
    return {sizeof(T), Shape::kMask, Shape::kGroups, Shape::kFields, Drift::Impl::textFormOf<T>()};
  }
}

}  // namespace Asic
