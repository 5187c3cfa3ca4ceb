#pragma once

#include <cstddef>
#include <set>

#include "QuarnBastil/PortXformTcamActionTypes.h"
#include "QuarnBastil/PortXformTcamEntryTypes.h"
#include "QuarnBastil/TcamActionTypes.h"
#include "QuarnBastil/TcamEntryTypes.h"
#include "QuarnLpmLib/BigAdsDataModelTypes.h"
#include "QuarnLpmLib/BigBbDataModelTypes.h"
#include "QuarnLpmLib/SmallAdsDataModelTypes.h"
#include "QuarnLpmLib/SmallBbDataModelTypes.h"
#include "QuarnLpmLib/TcamDataModelTypes.h"

// What a typed suite needs of a family: its types, and facts that are written down here once more,
// from the format and not from the code.
namespace RecordTest {

#define RECORD_TEST_FAMILY(ns, prefix)                   \
  using Key = ns::prefix##EntryKey;                      \
  using Entry = ns::prefix##Entry;                       \
  using LogEntry = ns::prefix##LogEntry;                 \
  using ResourceKeys = ns::prefix##ResourceKeys;         \
  using ConfigDriftEntry = ns::prefix##ConfigDriftEntry; \
  using LogDriftEntry = ns::prefix##LogDriftEntry

using Offsets = std::set<std::size_t>;

struct TcamEntry {
  RECORD_TEST_FAMILY(QuarnBastil, TcamEntry);
  static constexpr std::size_t kEntrySize = 536, kLogVersion = 540, kIsDeleted = 548;
  static Offsets padding() {
    return {1,   5,   6,   7,   39,  55,  83,  84,  85,  87,  121, 122, 123, 125,
            173, 222, 223, 255, 431, 477, 478, 479, 481, 509, 510, 511, 513, 535};
  }
};

struct TcamAction {
  RECORD_TEST_FAMILY(QuarnBastil, TcamAction);
  static constexpr std::size_t kEntrySize = 124, kLogVersion = 132, kIsDeleted = 140;
  static Offsets padding() { return {1}; }
};

struct PortXformTcamEntry {
  RECORD_TEST_FAMILY(QuarnBastil, PortXformTcamEntry);
  static constexpr std::size_t kEntrySize = 24, kLogVersion = 28, kIsDeleted = 36;
  static Offsets padding() { return {1}; }
};

struct PortXformTcamAction {
  RECORD_TEST_FAMILY(QuarnBastil, PortXformTcamAction);
  static constexpr std::size_t kEntrySize = 20, kLogVersion = 24, kIsDeleted = 32;
  static Offsets padding() { return {1}; }
};

struct BigBb {
  RECORD_TEST_FAMILY(QuarnLpmLib, BigBbDataModel);
  static constexpr std::size_t kEntrySize = 72, kLogVersion = 76, kIsDeleted = 84;
  static Offsets padding() { return {5, 6, 7}; }
};

struct SmallBb {
  RECORD_TEST_FAMILY(QuarnLpmLib, SmallBbDataModel);
  static constexpr std::size_t kEntrySize = 76, kLogVersion = 80, kIsDeleted = 88;
  static Offsets padding() { return {9, 10, 11}; }
};

struct BigAds {
  RECORD_TEST_FAMILY(QuarnLpmLib, BigAdsDataModel);
  static constexpr std::size_t kEntrySize = 32, kLogVersion = 36, kIsDeleted = 44;
  static Offsets padding() { return {5, 6, 7}; }
};

struct SmallAds {
  RECORD_TEST_FAMILY(QuarnLpmLib, SmallAdsDataModel);
  static constexpr std::size_t kEntrySize = 24, kLogVersion = 28, kIsDeleted = 36;
  static Offsets padding() { return {3}; }
};

struct LpmTcam {
  RECORD_TEST_FAMILY(QuarnLpmLib, TcamDataModel);
  static constexpr std::size_t kEntrySize = 32, kLogVersion = 36, kIsDeleted = 44;
  static Offsets padding() { return {5, 6, 7}; }
};

}  // namespace RecordTest
