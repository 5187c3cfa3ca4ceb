#include "Drift/RecordLayout.h"

#include <gtest/gtest.h>

#include <random>

#include "Drift/FlatValue.h"
#include "Drift/PackedNumber.h"

namespace {

using Drift::Format::Word;

struct ToyKey {
  std::uint8_t colour = 0;
  std::uint16_t place = 0;

  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(ToyKey, colour, 0), DRIFT_FIELD_AT(ToyKey, place, 2)};
  }
};

struct ToyGroup {
  std::uint8_t mode = 0;
  std::uint32_t value = 0;
  bool present = false;

  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(ToyGroup, mode, 0), DRIFT_FIELD_AT(ToyGroup, value, 4),
                      DRIFT_PRESENCE_AT(ToyGroup, present, 8)};
  }
};

/// Ends within a word, with a group that lies across words.
struct Toy : Drift::FlatValue<Toy> {
  using Key = ToyKey;

  ToyKey key;
  bool lit = false;
  Drift::PackedNumber<std::uint16_t> count;
  std::array<ToyGroup, 2> groups{};
  std::uint16_t tail = 0;
  Drift::Padding<5> unused;

  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(Toy, key, 0),   DRIFT_FIELD_AT(Toy, lit, 4),
                      DRIFT_FIELD_AT(Toy, count, 5), DRIFT_FIELD_AT(Toy, groups, 8),
                      DRIFT_FIELD_AT(Toy, tail, 32), DRIFT_FIELD_AT(Toy, unused, 34)};
  }
};
using Layout = Drift::RecordLayout<Toy>;
using Words = std::array<Word, Layout::kWords>;
static_assert(sizeof(Toy) == 40 && Layout::kKeySize == 4 && Layout::kKeyWords == 1);

bool equalByHand(const Toy& a, const Toy& b) {
  bool equal = a.key.colour == b.key.colour && a.key.place == b.key.place && a.lit == b.lit &&
               a.count == b.count && a.tail == b.tail;
  for (std::size_t i = 0; i < 2; ++i) {
    const ToyGroup& left = a.groups[i];
    const ToyGroup& right = b.groups[i];
    equal = equal && left.present == right.present &&
            (!left.present || (left.mode == right.mode && left.value == right.value));
  }
  return equal;
}

/// Random in every byte, padding included, but for the flags, which hold 0 or 1.
void scribble(Toy& toy, std::mt19937& random, unsigned oneIn) {
  auto* const bytes = reinterpret_cast<unsigned char*>(&toy);
  for (std::size_t i = 0; i < sizeof toy; ++i) {
    if (random() % oneIn != 0) continue;
    const bool flag = i == 4 || i == 16 || i == 28;
    bytes[i] = static_cast<unsigned char>(flag ? random() % 2 : random());
  }
}

Words wordsOf(const Toy& toy) {
  Words words;
  Layout::toWords(toy, words.data());
  return words;
}

TEST(RecordLayout, EqualValuesAndOnlyTheyHaveEqualWords) {
  std::mt19937 random(1);
  int equal = 0;
  for (int i = 0; i < 100'000; ++i) {
    Toy a;
    scribble(a, random, 1);
    Toy b = a;
    std::memcpy(static_cast<void*>(&b), &a, sizeof a);
    scribble(b, random, 20);
    const bool same = equalByHand(a, b);
    equal += same;
    ASSERT_EQ(Layout::same(a, b), same);
    ASSERT_EQ(Toy::isEq(&b, &a), same);
    ASSERT_EQ(wordsOf(a) == wordsOf(b), same);
    Toy back;
    scribble(back, random, 1);
    const Words words = wordsOf(a);
    Layout::fromWords(words.data(), back);
    ASSERT_TRUE(equalByHand(a, back));
    ASSERT_EQ(wordsOf(back), words);
    // Of any origin: flags are flags all the same.
    Words any;
    for (Word& word : any) word = Word{random()} << 32 | random();
    Layout::fromWords(any.data(), back);
    for (const std::size_t flag : {4, 16, 28}) {
      ASSERT_LE(reinterpret_cast<const unsigned char*>(&back)[flag], 1);
    }
  }
  EXPECT_GT(equal, 10'000);
  EXPECT_LT(equal, 90'000);
}

struct WithoutKey {
  std::uint32_t value;
};
struct PaddedWithoutFields {
  using Key = std::uint32_t;
  Key key;
  std::uint8_t value;
};
struct WithCleanup {
  using Key = std::uint32_t;
  Key key;
  ~WithCleanup() { key = 0; }
};
static_assert(Drift::Record<Toy>);
static_assert(!Drift::Record<WithoutKey>);
static_assert(!Drift::Record<PaddedWithoutFields>);
static_assert(!Drift::Record<WithCleanup>);

struct Listed {
  std::uint8_t a;
  std::uint8_t b;
  std::uint32_t c;
};

/// Whether a list of the fields of `Listed` compiles.
template <auto list>
concept ListHolds = requires {
  typename std::bool_constant<Drift::Impl::checkFields(list().data(), list().size(), sizeof(Listed),
                                                       alignof(Listed))>;
};
constexpr auto kA = [] { return DRIFT_FIELD(Listed, a); };
constexpr auto kB = [] { return DRIFT_FIELD(Listed, b); };
constexpr auto kC = [] { return DRIFT_FIELD(Listed, c); };
static_assert(ListHolds<[] { return std::array{kA(), kB(), kC()}; }>);
static_assert(!ListHolds<[] { return std::array{kB(), kC()}; }>, "the first one is missing");
static_assert(!ListHolds<[] { return std::array{kA(), kB()}; }>, "the last one is missing");
static_assert(!ListHolds<[] { return std::array{kA(), kC(), kB()}; }>, "out of order");
static_assert(!ListHolds<[] { return std::array{kA(), kA(), kB(), kC()}; }>, "overlap");
static_assert(!ListHolds<[] {
  return std::array{kA(), DRIFT_FIELD_AT(Listed, b, 2), kC()};
}>,
              "stated elsewhere than it stands");

}  // namespace
