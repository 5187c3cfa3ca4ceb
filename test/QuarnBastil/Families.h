#pragma once

#include <tuple>
#include <vector>

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

using Offsets = std::vector<std::size_t>;

struct TcamEntry {
  RECORD_TEST_FAMILY(QuarnBastil, TcamEntry);
  static constexpr std::size_t kEntrySize = 536, kLogVersion = 540, kIsDeleted = 548;
  static Offsets padding() {
    return {1,   5,   6,   7,   39,  55,  83,  84,  85,  87,  121, 122, 123, 125,
            173, 222, 223, 255, 431, 477, 478, 479, 481, 509, 510, 511, 513, 535};
  }
  static auto members(auto& e) {
    return std::tie(e.key, e.entryType, e.slices, e.direction, e.station, e.vlan, e.etherType,
                    e.etherTypeMode, e.protocol, e.sourcePrefix, e.sourceClass, e.destinationPrefix,
                    e.destinationClass, e.port, e.portRange, e.hopLimit, e.fragment, e.transport,
                    e.tunnel, e.userWords, e.innerEtherType, e.innerEtherTypeMode, e.innerVlan,
                    e.actionWords, e.innerDirection, e.innerStation, e.innerClass, e.innerTransport,
                    e.innerSourcePrefix, e.innerProtocol, e.innerDestinationPrefix, e.innerFragment,
                    e.lookup, e.lookupMode);
  }
};

struct TcamAction {
  RECORD_TEST_FAMILY(QuarnBastil, TcamAction);
  static constexpr std::size_t kEntrySize = 124, kLogVersion = 132, kIsDeleted = 140;
  static Offsets padding() { return {1}; }
  static auto members(auto& e) {
    return std::tie(e.key, e.destId, e.flags, e.counterId, e.policerId, e.mirror, e.rewrite);
  }
};

struct PortXformTcamEntry {
  RECORD_TEST_FAMILY(QuarnBastil, PortXformTcamEntry);
  static constexpr std::size_t kEntrySize = 24, kLogVersion = 28, kIsDeleted = 36;
  static Offsets padding() { return {1}; }
  static auto members(auto& e) {
    return std::tie(e.key, e.port, e.portMask, e.vlan, e.vlanMask, e.priority);
  }
};

struct PortXformTcamAction {
  RECORD_TEST_FAMILY(QuarnBastil, PortXformTcamAction);
  static constexpr std::size_t kEntrySize = 20, kLogVersion = 24, kIsDeleted = 32;
  static Offsets padding() { return {1}; }
  static auto members(auto& e) {
    return std::tie(e.key, e.xformId, e.profile, e.flags, e.counterId);
  }
};

struct BigBb {
  RECORD_TEST_FAMILY(QuarnLpmLib, BigBbDataModel);
  static constexpr std::size_t kEntrySize = 72, kLogVersion = 76, kIsDeleted = 84;
  static Offsets padding() { return {5, 6, 7}; }
  static auto members(auto& e) { return std::tie(e.key, e.block); }
};

struct SmallBb {
  RECORD_TEST_FAMILY(QuarnLpmLib, SmallBbDataModel);
  static constexpr std::size_t kEntrySize = 76, kLogVersion = 80, kIsDeleted = 88;
  static Offsets padding() { return {9, 10, 11}; }
  static auto members(auto& e) { return std::tie(e.key, e.block); }
};

struct BigAds {
  RECORD_TEST_FAMILY(QuarnLpmLib, BigAdsDataModel);
  static constexpr std::size_t kEntrySize = 32, kLogVersion = 36, kIsDeleted = 44;
  static Offsets padding() { return {5, 6, 7}; }
  static auto members(auto& e) { return std::tie(e.key, e.nextHop, e.label, e.words); }
};

struct SmallAds {
  RECORD_TEST_FAMILY(QuarnLpmLib, SmallAdsDataModel);
  static constexpr std::size_t kEntrySize = 24, kLogVersion = 28, kIsDeleted = 36;
  static Offsets padding() { return {3}; }
  static auto members(auto& e) { return std::tie(e.key, e.nextHop, e.label, e.words); }
};

struct LpmTcam {
  RECORD_TEST_FAMILY(QuarnLpmLib, TcamDataModel);
  static constexpr std::size_t kEntrySize = 32, kLogVersion = 36, kIsDeleted = 44;
  static Offsets padding() { return {5, 6, 7}; }
  static auto members(auto& e) { return std::tie(e.key, e.value, e.mask, e.nextHop, e.label); }
};

/// Fills values so that none of their bytes is zero and neighbours differ.
class Filler {
 public:
  template <class... Member>
  void operator()(Member&... member) {
    (fill(member), ...);
  }

 private:
  template <std::integral T>
  void fill(T& number) {
    number = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      next_ = next_ % 250 + 1;
      number = static_cast<T>(number | static_cast<T>(static_cast<T>(next_) << (8 * i)));
    }
  }
  template <class T, std::size_t kAlignment>
  void fill(Drift::PackedNumber<T, kAlignment>& number) {
    T value;
    fill(value);
    number = value;
  }
  template <class T, std::size_t kSize>
  void fill(std::array<T, kSize>& values) {
    for (T& value : values) fill(value);
  }
  void fill(QuarnBastil::ThirteenByteValue& v) { (*this)(v.valueAndMask, v.mode); }
  void fill(QuarnBastil::SixByteValue& v) { (*this)(v.value, v.mask); }
  void fill(QuarnBastil::ByteAndWord& v) { (*this)(v.mode, v.value); }
  void fill(QuarnBastil::WordAndByte& v) { (*this)(v.value, v.mode); }
  void fill(QuarnBastil::OptionalPrefix& v) {
    (*this)(v.address, v.zone, v.length);
    v.present = true;
  }
  void fill(QuarnLpmLib::PrefixBlock& v) { (*this)(v.value, v.mask, v.nextHop); }
  template <class Self>
  void fill(QuarnBastil::BankIndexKey<Self>& key) {
    (*this)(key.bank, key.index);
  }
  template <class Self>
  void fill(QuarnLpmLib::IndexBankKey<Self>& key) {
    (*this)(key.index, key.bank);
  }
  template <class Self>
  void fill(QuarnLpmLib::PrefixKey<Self>& key) {
    (*this)(key.prefix, key.length);
  }
  template <class Self>
  void fill(QuarnLpmLib::WidePrefixKey<Self>& key) {
    (*this)(key.high, key.low, key.length);
  }

  unsigned next_ = 0;
};

}  // namespace RecordTest
