#include "OrderedTable/FlatShape.h"

#include <algorithm>
#include <cstring>

#include "Drift/RecordText.h"

namespace Asic {

namespace {

using Word = FlatShape::Word;

template <class Number>
void takePart(const unsigned char*& bytes, Word& word, unsigned& bits) noexcept {
  Number part = 0;
  std::memcpy(&part, bytes, sizeof part);
  word |= Word{part} << bits;
  bytes += sizeof part;
  bits += 8 * sizeof part;
}

/// The bytes of an incomplete word. Put together in a register, since a word that was stored in
/// parts is loaded as a whole only once the stores are done.
Word partialWord(const unsigned char* bytes, std::size_t size) noexcept {
  Word word = 0;
  unsigned bits = 0;
  if ((size & 4) != 0) takePart<std::uint32_t>(bytes, word, bits);
  if ((size & 2) != 0) takePart<std::uint16_t>(bytes, word, bits);
  if ((size & 1) != 0) takePart<std::uint8_t>(bytes, word, bits);
  return word;
}

void clearAbsent(std::span<const Drift::Impl::OptionalGroup> groups, Word* words) noexcept {
  auto* const bytes = reinterpret_cast<unsigned char*>(words);
  for (const auto& group : groups) {
    if (bytes[group.presence()] == 0) std::memset(bytes + group.offset, 0, group.size);
  }
}

}  // namespace

void FlatShape::toWords(const void* value, Word* out) const noexcept {
  if (empty()) return;
  const auto* const bytes = static_cast<const unsigned char*>(value);
  const Word* const bits = mask.data();
  const std::size_t whole = size / sizeof(Word);
  for (std::size_t i = 0; i < whole; ++i) {
    Word word = 0;
    std::memcpy(&word, bytes + i * sizeof(Word), sizeof word);
    out[i] = word & bits[i];
  }
  if (whole < mask.size()) {
    const std::size_t at = whole * sizeof(Word);
    out[whole] = partialWord(bytes + at, size - at) & bits[whole];
  }
  clearAbsent(groups, out);
}

void FlatShape::makeCanonical(Word* words) const noexcept {
  const Word* const bits = mask.data();
  for (std::size_t i = 0, count = mask.size(); i < count; ++i) words[i] &= bits[i];
  clearAbsent(groups, words);
}

void FlatShape::fromWords(const Word* words, void* value) const noexcept {
  if (empty()) return;
  auto* const bytes = static_cast<unsigned char*>(value);
  const std::size_t whole = size / sizeof(Word);
  for (std::size_t i = 0; i < whole; ++i) {
    const Word word = words[i] & mask[i];
    std::memcpy(bytes + i * sizeof(Word), &word, sizeof(Word));
  }
  if (whole == mask.size()) return;
  const Word word = words[whole] & mask[whole];
  std::memcpy(bytes + whole * sizeof(Word), &word, size - whole * sizeof(Word));
}

bool FlatShape::same(const void* a, const void* b) const noexcept {
  const auto* const left = static_cast<const unsigned char*>(a);
  const auto* const right = static_cast<const unsigned char*>(b);
  const auto absentInBoth = [&](std::size_t at) {
    return std::ranges::any_of(groups, [&](const auto& group) {
      return at >= group.offset && at < group.presence() && left[group.presence()] == 0 &&
             right[group.presence()] == 0;
    });
  };
  for (std::size_t i = 0; i < mask.size(); ++i) {
    const std::size_t from = i * sizeof(Word);
    const std::size_t bytes = std::min(sizeof(Word), size - from);
    Word difference[2]{};
    std::memcpy(&difference[0], left + from, bytes);
    std::memcpy(&difference[1], right + from, bytes);
    Word differs = (difference[0] ^ difference[1]) & mask[i];
    for (std::size_t byte = 0; differs != 0; ++byte, differs >>= 8) {
      if ((differs & 0xff) != 0 && !absentInBoth(from + byte)) return false;
    }
  }
  return true;
}

void FlatShape::textAppend(std::string& text, const void* value) const {
  if (!empty()) Drift::textAppend(text, value, fields.data(), fields.size(), form);
}

bool FlatShape::fromText(std::string_view text, void* value) const {
  return !empty() && Drift::fromText(text, value, fields.data(), fields.size(), form);
}

}  // namespace Asic
