#pragma once

#include "QuarnBastil/EntryLog.h"
#include "QuarnBastil/InfraTypes.h"
#include "QuarnBastil/Interface.h"
#include "QuarnBastil/SwTable.h"
#include "QuarnBastil/SwTableHelperBase.h"
#include "QuarnLpmLib/BigBbDataModel.h"

namespace QuarnBastil {

class QUARNBASTIL_EXPORT BigBbSwTable;
class QUARNBASTIL_EXPORT BigBbEntryHandle;
class QUARNBASTIL_EXPORT BigBbSwTableEntries_py;
class QUARNBASTIL_EXPORT BigBbSwTableIteratorState;
class QUARNBASTIL_EXPORT BigBbEntryWrapper;
class QUARNBASTIL_EXPORT BigBbResolverEntry;
class QUARNBASTIL_EXPORT BigBbSwTableHelperBase;
class QUARNBASTIL_EXPORT BigBbEntryLog;
class QUARNBASTIL_EXPORT BigBbInterface;

/// The blocks of the prefix search that cover a 32-bit prefix.
struct QUARNBASTIL_EXPORT BigBbFamily
    : FamilyClasses<"BigBb", BigBbSwTable, BigBbEntryHandle, BigBbSwTableEntries_py,
                    BigBbSwTableIteratorState, BigBbEntryWrapper, BigBbResolverEntry,
                    BigBbSwTableHelperBase, BigBbEntryLog, BigBbInterface> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x09, 0x0402};
  static constexpr const char* kGroupName = "QuarnBastilPrefixOuter";
  static constexpr std::uint16_t kSwTableFieldBase = 768;

  using Key = QuarnLpmLib::BigBbDataModelEntryKey;
  using Entry = QuarnLpmLib::BigBbDataModelEntry;
  using LogEntry = QuarnLpmLib::BigBbDataModelLogEntry;
  using ResourceKeys = QuarnLpmLib::BigBbDataModelResourceKeys;
  using ConfigDriftEntry = QuarnLpmLib::BigBbDataModelConfigDriftEntry;
  using LogDriftEntry = QuarnLpmLib::BigBbDataModelLogDriftEntry;
  using ConfigDrift = QuarnLpmLib::BigBbDataModelConfigDrift;
  using EntryLogDrift = QuarnLpmLib::BigBbDataModelEntryLogDrift;
  using SwTableBase = QuarnLpmLib::BigBbDataModelSwTableBase;
  using IteratorStateBase = QuarnLpmLib::BigBbDataModelSwTableIteratorState;
  using EntryHandleBase = SwTableBase::EntryHandle;
  using Constants = FamilyConstants<BigBbFamily>;

  static constexpr std::uint32_t kTransientAddEntrySalt = 0x1f83d9ab;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0x5be0cd19;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0xcbbb9d5d;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x629a292a;
  static constexpr std::uint32_t kTableEntriesSalt = 0x9159015a;
};

using BigBbConstants = BigBbFamily::Constants;

class QUARNBASTIL_EXPORT BigBbEntryHandle final : public SwTableEntryHandle<BigBbFamily> {
 public:
  static constexpr std::string_view kTypeName = "EntryHandle";
  using SwTableEntryHandle::SwTableEntryHandle;
};

class QUARNBASTIL_EXPORT BigBbSwTableEntries_py final : public SwTableEntriesPy<BigBbFamily> {
 public:
  static constexpr std::string_view kTypeName = "SwTableEntries_py";
};

class QUARNBASTIL_EXPORT BigBbSwTableIteratorState final
    : public SwTableIteratorState<BigBbFamily> {};

class QUARNBASTIL_EXPORT BigBbEntryWrapper final : public EntryWrapper<BigBbFamily> {
 public:
  using EntryWrapper::EntryWrapper;
  FENRIK_FACTORY(bigBbEntryWrapper, BigBbEntryWrapper);
};

class QUARNBASTIL_EXPORT BigBbResolverEntry final : public ResolverEntry<BigBbFamily> {
 public:
  using ResolverEntry::ResolverEntry;
  FENRIK_FACTORY(bigBbResolverEntry, BigBbResolverEntry);
};

class QUARNBASTIL_EXPORT BigBbSwTableHelperBase : public SwTableHelperBase<BigBbFamily> {
 public:
  FENRIK_FACTORY(bigBbSwTableHelperBase, BigBbSwTableHelperBase);
};

class QUARNBASTIL_EXPORT BigBbEntryLog final : public EntryLog<BigBbFamily> {
 public:
  using EntryLog::EntryLog;
  FENRIK_FACTORY(bigBbEntryLog, BigBbEntryLog);
};

class QUARNBASTIL_EXPORT BigBbSwTable final : public SwTable<BigBbFamily> {
 public:
  using SwTable::SwTable;
  FENRIK_FACTORY(bigBbSwTable, BigBbSwTable);
};

class QUARNBASTIL_EXPORT BigBbInterface final : public Interface<BigBbFamily> {
 public:
  using Interface::Interface;
};

static_assert(FamilyTraits<BigBbFamily>);

extern template class SwTable<BigBbFamily>;
extern template class EntryLog<BigBbFamily>;
extern template class Interface<BigBbFamily>;

}  // namespace QuarnBastil
