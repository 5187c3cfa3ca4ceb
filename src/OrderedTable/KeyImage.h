#pragma once

#include <array>

#include "Drift/Format.h"
#include "OrderedTable/FlatShape.h"

namespace Asic {

/// A key as whole words with zero in its padding: what indexes and collections compare. Its first
/// byte is the key's, so that it may stand where a key is asked for by address.
class KeyImage {
 public:
  using Word = FlatShape::Word;

  KeyImage() noexcept : words_{} {}
  KeyImage(const FlatShape& shape, const void* key) noexcept { shape.toWords(key, words_.data()); }

  const Word* words() const noexcept { return words_.data(); }

  friend bool operator==(const KeyImage&, const KeyImage&) noexcept = default;

 private:
  std::array<Word, Drift::Format::kMaxKeySize / sizeof(Word)> words_;
};

}  // namespace Asic
