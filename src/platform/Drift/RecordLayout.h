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

/// What may be taken for its bytes: a type without pointers and cleanup, which has no padding or
/// states its fields.
template <class T>
concept Flat = std::is_standard_layout_v<T> && std::is_trivially_destructible_v<T> &&
    (Described<T> || Plain<T>);

/// Between a flat value and its canonical words: its bytes, with zero in padding, in the bytes of
/// optional groups that are absent, and behind the end. Equal values have equal words.
///
/// Cost: a copy, and an AND with a mask made at compile time for the words in which there is
/// padding, then the few optional groups.
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
  /// The same for a value that is given by those of its fields, in their order.
  template <class... Parts>
  static void partsToWords(Word* out, const Parts&... parts) noexcept {
    out[kWords - 1] = 0;
    partsToBytes(reinterpret_cast<unsigned char*>(out), std::index_sequence_for<Parts...>(),
                 parts...);
    makeCanonical(out);
  }

  /// The words may be anything: what comes out is a value of the type.
  static void fromWords(const Word* words, T& value) noexcept {
    // Members with a copy of their own (optional groups) are plain bytes all the same; a flag must
    // hold 0 or 1 before anybody reads it.
    auto* const bytes = reinterpret_cast<unsigned char*>(&value);
    std::memcpy(bytes, words, kSize);
    clearPadding(bytes, std::make_index_sequence<kPaddedWordCount>());
  }

  /// Whether the values are equal; padding and absent groups have no say.
  static bool same(const T& a, const T& b) noexcept {
    const auto* const left = reinterpret_cast<const unsigned char*>(&a);
    const auto* const right = reinterpret_cast<const unsigned char*>(&b);
    // An even number of words in the loop, so that the compiler takes two at a time.
    constexpr std::size_t kInPairs = kSize / sizeof(Word) / 2 * 2;
    Word difference = 0;
    for (std::size_t i = 0; i < kInPairs; ++i) {
      difference |= (wordAt(left, i) ^ wordAt(right, i)) & kMaskOutsideGroups[i];
    }
    difference |= differenceFrom<kInPairs>(left, right);
    return difference == 0 && sameGroups(left, right, std::make_index_sequence<kGroupCount>());
  }

  /// For each byte of the type, the bits of it that mean something.
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

  /// The words in which there is padding: few, so that the rest is a plain copy.
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

  /// Whether the groups that are present are the same; presence itself was compared before.
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

  /// The difference of the words from `index` on, one by one.
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

  /// The `kBytes` bytes from 8 * `index` as the low ones of a word.
  template <std::size_t kBytes = sizeof(Word)>
  static Word wordAt(const unsigned char* bytes, std::size_t index) noexcept {
    Word word = 0;
    std::memcpy(&word, bytes + index * sizeof(Word), kBytes);
    return word;
  }
};

/// A type that names the type of its key, `using Key = ...`.
template <class T>
concept StatesItsKey = requires {
  typename T::Key;
};

/// What a collection may hold: a flat value that begins with its key.
template <class T>
concept Record = StatesItsKey<T> && Flat<T> && Flat<typename T::Key>;

/// How a record travels between its C++ form and a collection.
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
