#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace Support {

/// What the format and the hardware say of a family, written down once more and not from its code.
struct FamilyFacts {
  std::string_view name;
  std::uint32_t tableId;
  const char* group;
  /// What the names of its record types begin with.
  const char* model;
  std::size_t keySize;
  /// Of the log entry, with which a configuration record begins; offsets in that.
  std::size_t entrySize, logVersion, isDeleted;
  /// The lowest attribute of the table, and of an iteration's state.
  unsigned tableAttribute, iteratorAttribute;
  /// The key of number 0x20005, for people.
  const char* key;
  /// Bytes of the log entry that mean nothing.
  std::set<std::size_t> padding;
};

template <class Family>
const FamilyFacts& factsOf() {
  constexpr const char* kOwn = "QuarnBastilGroup";
  constexpr const char* kPrefix = "QuarnBastilPrefixOuter";
  static const std::vector<FamilyFacts> all = {
      {"TcamEntry",
       0x04080404,
       kOwn,
       "QuarnBastil::TcamEntry",
       4,
       536,
       540,
       548,
       642,
       258,
       "2:5",
       {1,   5,   6,   7,   39,  55,  83,  84,  85,  87,  121, 122, 123, 125,
        173, 222, 223, 255, 431, 477, 478, 479, 481, 509, 510, 511, 513, 535}},
      {"TcamAction",
       0x04080403,
       kOwn,
       "QuarnBastil::TcamAction",
       4,
       124,
       132,
       140,
       642,
       258,
       "2:5",
       {1}},
      {"PortXformTcamEntry",
       0x04080402,
       kOwn,
       "QuarnBastil::PortXformTcamEntry",
       4,
       24,
       28,
       36,
       642,
       258,
       "2:5",
       {1}},
      {"PortXformTcamAction",
       0x04080401,
       kOwn,
       "QuarnBastil::PortXformTcamAction",
       4,
       20,
       24,
       32,
       642,
       258,
       "2:5",
       {1}},
      {"BigAds",
       0x04090401,
       kPrefix,
       "QuarnLpmLib::BigAdsDataModel",
       8,
       32,
       36,
       44,
       770,
       386,
       "10.119.96.117/5",
       {5, 6, 7}},
      {"BigBb",
       0x04090402,
       kPrefix,
       "QuarnLpmLib::BigBbDataModel",
       8,
       72,
       76,
       84,
       770,
       386,
       "10.119.96.117/5",
       {5, 6, 7}},
      {"LpmTcam",
       0x04090403,
       kPrefix,
       "QuarnLpmLib::TcamDataModel",
       8,
       32,
       36,
       44,
       770,
       386,
       "10.119.96.117/5",
       {5, 6, 7}},
      {"SmallAds",
       0x04090404,
       kPrefix,
       "QuarnLpmLib::SmallAdsDataModel",
       4,
       24,
       28,
       36,
       770,
       386,
       "2:5",
       {3}},
      {"SmallBb",
       0x04090405,
       kPrefix,
       "QuarnLpmLib::SmallBbDataModel",
       12,
       76,
       80,
       88,
       770,
       386,
       "a77:6075:2:5::/5",
       {9, 10, 11}},
      {"Toy", 0x04080701, kOwn, "Toy::Toy", 4, 8, 12, 20, 642, 258, "{number: 131077}", {}}};
  for (const FamilyFacts& facts : all) {
    if (facts.name == Family::kTableName) return facts;
  }
  throw std::logic_error("a family without facts");
}

}  // namespace Support
