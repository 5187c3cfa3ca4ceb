#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Drift/Format.h"
#include "Drift/RecordField.h"

namespace Drift {

/// A type that can be copied as bytes: no pointers, no destructor, and either no padding or a field
/// list.
template <class T>
concept Flat = std::is_standard_layout_v<T> && std::is_trivially_destructible_v<T> &&
    (Described<T> || Plain<T>);

/// Converts between a flat value and its canonical words: its bytes, with zero in padding, in
/// absent optional groups and after the end. Equal values have equal words.
///
/// Cost: a copy, plus an AND with a compile-time mask for words that contain padding, plus the
/// optional groups.
template <Flat T>
class FlatLayout {
 public:
  using Word = Format::Word;

  static constexpr std::size_t kSize = sizeof(T);
  static constexpr std::size_t kWords = Format::paddedSize(kSize) / sizeof(Word);

  static void toWords(const T& value, Word* out) noexcept {
    out[kWords - 1] = 0;
    std::memcpy(out, &value, kSize);
    makeCanonical(out);
  }
  /// As above, for a value given as its fields, in order.
  template <class... Parts>
  static void partsToWords(Word* out, const Parts&... parts) noexcept {
    out[kWords - 1] = 0;
    partsToBytes(reinterpret_cast<unsigned char*>(out), std::index_sequence_for<Parts...>(),
                 parts...);
    makeCanonical(out);
  }

  /// Converts words of any content to a valid value of the type.
  static void fromWords(const Word* words, T& value) noexcept {
    // Copying bytes is valid even for members with a copy constructor of their own (optional
    // groups). A flag must be normalized to 0 or 1 before it is read.
    auto* const bytes = reinterpret_cast<unsigned char*>(&value);
    std::memcpy(bytes, words, kSize);
    clearPadding(bytes, std::make_index_sequence<kPaddedWordCount>());
  }

  /// Whether the values are equal, ignoring padding and absent groups.
  static bool same(const T& a, const T& b) noexcept {
    const auto* const left = reinterpret_cast<const unsigned char*>(&a);
    const auto* const right = reinterpret_cast<const unsigned char*>(&b);
    // An even number of words, so that the compiler vectorizes by two.
    constexpr std::size_t kInPairs = kSize / sizeof(Word) / 2 * 2;
    Word difference = 0;
    for (std::size_t i = 0; i < kInPairs; ++i) {
      difference |= (wordAt(left, i) ^ wordAt(right, i)) & kMaskOutsideGroups[i];
    }
    difference |= differenceFrom<kInPairs>(left, right);
    return difference == 0 && sameGroups(left, right, std::make_index_sequence<kGroupCount>());
  }

  /// For each byte of the type, its significant bits.
  static constexpr std::array<std::uint8_t, kSize> kByteMask = [] {
    std::array<std::uint8_t, kSize> mask{};
    if constexpr (Described<T>) {
      constexpr auto& fields = kFieldsOf<T>;
      static_assert(Impl::checkFields(fields.data(), fields.size(), kSize, alignof(T)));
      Impl::addToMask(mask.data(), fields.data(), fields.size());
    } else {
      mask.fill(0xff);
    }
    return mask;
  }();

 private:
  using WordMask = std::array<Word, kWords>;

  static constexpr std::size_t kGroupCount = [] {
    if constexpr (Described<T>) {
      return Impl::collectGroups(kFieldsOf<T>.data(), kFieldsOf<T>.size(), 0, nullptr);
    }
    return std::size_t{0};
  }();
  static constexpr std::array<Impl::OptionalGroup, kGroupCount> kGroups = [] {
    std::array<Impl::OptionalGroup, kGroupCount> groups{};
    if constexpr (kGroupCount != 0) {
      Impl::collectGroups(kFieldsOf<T>.data(), kFieldsOf<T>.size(), 0, groups.data());
    }
    return groups;
  }();

  static constexpr WordMask wordMask(const std::array<std::uint8_t, kSize>& bytes) {
    WordMask words{};
    for (std::size_t i = 0; i < kSize; ++i) words[i / 8] |= Word{bytes[i]} << (i % 8 * 8);
    return words;
  }
  static constexpr WordMask kMask = wordMask(kByteMask);
  static constexpr WordMask kMaskOutsideGroups = [] {
    std::array<std::uint8_t, kSize> bytes = kByteMask;
    for (const Impl::OptionalGroup& group : kGroups) {
      for (std::size_t i = group.offset; i < group.presence(); ++i) bytes[i] = 0;
    }
    return wordMask(bytes);
  }();

  /// The words that contain padding; they are few, and the rest is a plain copy.
  static constexpr std::size_t kPaddedWordCount =
      static_cast<std::size_t>(std::ranges::count_if(kMask, [](Word mask) { return ~mask != 0; }));
  static constexpr std::array<std::size_t, kPaddedWordCount> kPaddedWords = [] {
    std::array<std::size_t, kPaddedWordCount> indices{};
    std::size_t found = 0;
    for (std::size_t i = 0; i < kWords; ++i) {
      if (~kMask[i] != 0) indices[found++] = i;
    }
    return indices;
  }();

  static void makeCanonical(Word* words) noexcept {
    auto* const bytes = reinterpret_cast<unsigned char*>(words);
    clearPadding(bytes, std::make_index_sequence<kPaddedWordCount>());
    clearAbsentGroups(bytes, std::make_index_sequence<kGroupCount>());
  }

  template <std::size_t... i, class... Parts>
  static void partsToBytes(unsigned char* bytes, std::index_sequence<i...>,
                           const Parts&... parts) noexcept {
    static_assert(sizeof...(Parts) == kFieldsOf<T>.size());
    static_assert(((sizeof(Parts) == kFieldsOf<T>[i].size * kFieldsOf<T>[i].count) && ...));
    (std::memcpy(bytes + kFieldsOf<T>[i].offset, static_cast<const void*>(&parts), sizeof(Parts)),
     ...);
  }

  template <std::size_t... i>
  static void clearPadding([[maybe_unused]] unsigned char* bytes,
                           std::index_sequence<i...>) noexcept {
    (clearPaddingOfWord<kPaddedWords[i]>(bytes), ...);
  }

  template <std::size_t index>
  static void clearPaddingOfWord(unsigned char* bytes) noexcept {
    constexpr std::size_t kBytes = bytesOfWord(index);
    const Word word = wordAt<kBytes>(bytes, index) & kMask[index];
    std::memcpy(bytes + index * sizeof(Word), &word, kBytes);
  }

  template <std::size_t... i>
  static void clearAbsentGroups([[maybe_unused]] unsigned char* bytes,
                                std::index_sequence<i...>) noexcept {
    ((bytes[kGroups[i].presence()] != 0
          ? static_cast<void>(0)
          : static_cast<void>(std::memset(bytes + kGroups[i].offset, 0, kGroups[i].size))),
     ...);
  }

  /// Compares the present groups. Presence itself has been compared before.
  template <std::size_t... i>
  static bool sameGroups([[maybe_unused]] const unsigned char* left,
                         [[maybe_unused]] const unsigned char* right,
                         std::index_sequence<i...>) noexcept {
    return ((left[kGroups[i].presence()] == 0 || sameGroup<i>(left, right)) && ...);
  }

  template <std::size_t i>
  static bool sameGroup(const unsigned char* left, const unsigned char* right) noexcept {
    std::uint8_t difference = 0;
    for (std::size_t at = kGroups[i].offset; at < kGroups[i].presence(); ++at) {
      difference |= static_cast<std::uint8_t>((left[at] ^ right[at]) & kByteMask[at]);
    }
    return difference == 0;
  }

  /// Accumulates the differences of the words from `index` on.
  template <std::size_t index>
  static Word differenceFrom(const unsigned char* left, const unsigned char* right) noexcept {
    if constexpr (index == kWords) {
      return 0;
    } else {
      constexpr std::size_t kBytes = bytesOfWord(index);
      return ((wordAt<kBytes>(left, index) ^ wordAt<kBytes>(right, index)) &
              kMaskOutsideGroups[index]) |
             differenceFrom<index + 1>(left, right);
    }
  }

  static constexpr std::size_t bytesOfWord(std::size_t index) {
    return std::min(sizeof(Word), kSize - index * sizeof(Word));
  }

  /// The `kBytes` bytes at 8 * `index`, as the low bytes of a word.
  template <std::size_t kBytes = sizeof(Word)>
  static Word wordAt(const unsigned char* bytes, std::size_t index) noexcept {
    Word word = 0;
    std::memcpy(&word, bytes + index * sizeof(Word), kBytes);
    return word;
  }
};

/// A type that defines its key type, `using Key = ...`.
template <class T>
concept StatesItsKey = requires {
  typename T::Key;
};

/// An element of a collection: a flat value that begins with its key.
template <class T>
concept Record = StatesItsKey<T> && Flat<T> && Flat<typename T::Key>;

/// Converts records between their C++ form and the words of a collection.
template <Record R>
class RecordLayout : public FlatLayout<R> {
 public:
  using Key = typename R::Key;
  using Word = Format::Word;

  static constexpr std::size_t kRecordSize = sizeof(R);
  static constexpr std::size_t kKeySize = sizeof(Key);
  static constexpr std::size_t kKeyWords = FlatLayout<Key>::kWords;

  static void keyToWords(const Key& key, Word* out) noexcept { FlatLayout<Key>::toWords(key, out); }

 private:
  static constexpr bool beginsWithKey() {
    for (std::size_t i = 0; i < kKeySize; ++i) {
      if (FlatLayout<R>::kByteMask[i] != FlatLayout<Key>::kByteMask[i]) return false;
    }
    return true;
  }
  static_assert(kKeySize <= kRecordSize && beginsWithKey(), "a record begins with its key");
};

}  // namespace Drift
