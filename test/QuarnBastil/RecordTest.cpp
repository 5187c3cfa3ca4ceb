#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>

#include "Drift/RecordLayout.h"
#include "Kiv/StrepFormatter.h"
#include "OrderedTable/ValueTypes.h"
#include "Support/FamilyMemory.h"
#include "Support/TypedFamilies.h"

namespace RecordTest {
namespace {

constexpr std::uint64_t kVersion = 0x1122334455667788;

template <class T>
using WordsOf = std::array<Drift::Format::Word, Drift::FlatLayout<T>::kWords>;

template <class T>
auto bytesOf(const T& value) {
  WordsOf<T> words;
  Drift::FlatLayout<T>::toWords(value, words.data());
  return std::bit_cast<std::array<unsigned char, sizeof words>>(words);
}

template <class T>
T fromBytes(const std::array<unsigned char, sizeof(WordsOf<T>)>& bytes) {
  T value;
  Drift::FlatLayout<T>::fromWords(std::bit_cast<WordsOf<T>>(bytes).data(), value);
  return value;
}

template <class Family>
class RecordSuite : public testing::Test {
 public:
  using Config = typename Family::ConfigDriftEntry;
  using Log = typename Family::LogDriftEntry;

  static Config fullConfig() {
    typename Family::ResourceKeys keys;
    if constexpr (requires { keys.requestId; }) {
      keys.requestId = QuarnL3NiLib::ReqIdToFecResourceTableEntryKey(kVersion + 1);
    }
    return Config(Support::fullEntryOf<Family>(), keys, Asic::LogVersion(kVersion), true);
  }
  static Log fullLog() {
    return Log(Asic::LogVersion(kVersion), Asic::EntryFlags(1), Asic::UnitId(0x2233),
               Support::fullEntryOf<Family>());
  }

  /// Flips the lowest bit of each byte in turn: it changes the value if, and only if, the byte is
  /// stored. One that is not stored is padding: a stored byte of a full value is not zero.
  template <class T>
  static void expectOneWithItsBytes(const T& value) {
    const auto stored = bytesOf(value);
    EXPECT_EQ(fromBytes<T>(stored), value);
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      T other;
      std::memcpy(static_cast<void*>(&other), static_cast<const void*>(&value), sizeof(T));
      reinterpret_cast<unsigned char*>(&other)[i] ^= 1;
      const bool means = stored[i] != 0;
      EXPECT_EQ(T::isEq(&value, &other), !means) << "byte " << i;
      EXPECT_EQ(bytesOf(value) == bytesOf(other), !means) << "byte " << i;
    }
    // Words of any origin make a value with neither padding nor a flag that is none.
    auto ones = stored;
    ones.fill(0xff);
    const T any = fromBytes<T>(ones);
    const auto canonical = bytesOf(any);
    EXPECT_EQ(std::memcmp(&any, canonical.data(), sizeof any), 0);
  }
};

using Families = Support::TypedFamilies<testing::Types>;
TYPED_TEST_SUITE(RecordSuite, Families);

TYPED_TEST(RecordSuite, EveryByteTravelsAndComparesUnlessItIsPadding) {
  this->expectOneWithItsBytes(this->fullConfig());
  this->expectOneWithItsBytes(this->fullLog());
  this->expectOneWithItsBytes(Support::fullEntryOf<TypeParam>());
}

TYPED_TEST(RecordSuite, KeysCompareByTheirFieldsInOrder) {
  using Key = typename TypeParam::Key;
  const Key low{};
  std::vector<Key> rising{low};
  constexpr auto& fields = Drift::kFieldsOf<Key>;
  // The last field decides least; each one above outweighs all below it.
  for (std::size_t i = fields.size(); i-- > 0;) {
    Key key;
    reinterpret_cast<unsigned char*>(&key)[fields[i].offset] = 1;
    rising.push_back(key);
  }
  for (std::size_t a = 0; a < rising.size(); ++a) {
    for (std::size_t b = 0; b < rising.size(); ++b) {
      EXPECT_EQ(rising[a] < rising[b], a < b);
      EXPECT_EQ(Key::isEq(&rising[a], &rising[b]), a == b);
      EXPECT_EQ(rising[a].hash(17) == rising[b].hash(17), a == b);
      EXPECT_EQ(bytesOf(rising[a]) == bytesOf(rising[b]), a == b);
    }
  }
  EXPECT_NE(rising[1].hash(17), rising[1].hash(18));

  Key padded = rising[1];
  for (std::size_t i = 0; i < sizeof padded; ++i) {
    auto& byte = reinterpret_cast<unsigned char*>(&padded)[i];
    if (Drift::FlatLayout<Key>::kByteMask[i] == 0) byte = 0xee;
  }
  EXPECT_EQ(padded, rising[1]);
  EXPECT_EQ(padded.hash(17), rising[1].hash(17));
  EXPECT_EQ(bytesOf(padded), bytesOf(rising[1]));
}

TEST(TcamEntryRecord, AnAbsentPrefixIsNeitherCopiedNorStoredNorCompared) {
  auto a = Support::fullEntryOf<QuarnBastil::TcamEntryFamily>();
  QuarnBastil::TcamEntryLogEntry b = a;
  for (const auto member : {&QuarnBastil::TcamEntryLogEntry::sourcePrefix,
                            &QuarnBastil::TcamEntryLogEntry::destinationPrefix,
                            &QuarnBastil::TcamEntryLogEntry::innerSourcePrefix,
                            &QuarnBastil::TcamEntryLogEntry::innerDestinationPrefix}) {
    EXPECT_EQ(b, a);
    (a.*member).length = 77;
    EXPECT_NE(b, a);
    (a.*member).present = false;
    EXPECT_NE(b, a);
    (b.*member).present = false;
    EXPECT_EQ(bytesOf(b), bytesOf(a));
    const QuarnBastil::TcamEntryLogEntry copy = a;
    EXPECT_EQ(copy, a);
    EXPECT_NE((copy.*member).length, 77);
  }
  EXPECT_EQ(b, a);
}

struct Listed {
  std::uint8_t a;
  std::uint8_t b;
  std::uint32_t c;
};

/// Whether a list of these fields of `Listed` compiles.
template <auto... field>
concept ListHolds = requires {
  typename std::bool_constant<Drift::Impl::checkFields(
      std::array{field()...}.data(), sizeof...(field), sizeof(Listed), alignof(Listed))>;
};
constexpr auto kA = [] { return DRIFT_FIELD(Listed, a); };
constexpr auto kB = [] { return DRIFT_FIELD(Listed, b); };
constexpr auto kMovedB = [] { return DRIFT_FIELD_AT(Listed, b, 2); };
constexpr auto kC = [] { return DRIFT_FIELD(Listed, c); };
static_assert(ListHolds<kA, kB, kC>);
static_assert(!ListHolds<kB, kC>, "the first one is missing");
static_assert(!ListHolds<kA, kB>, "the last one is missing");
static_assert(!ListHolds<kA, kC, kB>, "out of order");
static_assert(!ListHolds<kA, kA, kB, kC>, "overlap");
static_assert(!ListHolds<kA, kMovedB, kC>, "stated elsewhere than it stands");

}  // namespace

/// What traces print is what inspection shows.
TEST(ValueTypes, HaveOneTextForm) {
  const auto expect = [](const auto& value, const char* text) {
    const auto type = Kiv::typeOf<std::remove_cvref_t<decltype(value)>>();
    EXPECT_EQ(KivFenrik::Impl::valueToStrep(type, &value).view(), text);
    EXPECT_EQ(fmt::format("{}", value), text);
  };
  const Asic::SwTableId table(0x04, 0x08, 0x0404);
  expect(table, "04:08:0404");
  expect(Asic::UnitId(3), "3");
  expect(Asic::LogVersion(17), "17");
  expect(Asic::TableVersion(table, Asic::LogVersion(17)), "04:08:0404@17");
  expect(Asic::MajorVersion(5), "5");
  expect(Asic::EntryVersion(Asic::MajorVersion(5), 1), "5.1");
  expect(Asic::EntryFlags(2), "2");
  expect(Asic::GenId(3, 4), "3.4");
  expect(Asic::Index(6), "6");
}

}  // namespace RecordTest
