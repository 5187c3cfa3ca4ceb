#pragma once

#include <array>

#include "Drift/Format.h"
#include "OrderedTable/FlatShape.h"

namespace Asic {

/// A key as whole words with zero padding: the form that indexes and collections compare. Its
/// address is also the address of the key.
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
