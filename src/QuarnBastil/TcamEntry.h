#pragma once

#include "QuarnBastil/EntryLog.h"
#include "QuarnBastil/InfraTypes.h"
#include "QuarnBastil/Interface.h"
#include "QuarnBastil/SwTable.h"
#include "QuarnBastil/SwTableHelperBase.h"
#include "QuarnBastil/TcamEntryTypes.h"

namespace QuarnBastil {

class QUARNBASTIL_EXPORT TcamEntrySwTable;
class QUARNBASTIL_EXPORT TcamEntryEntryHandle;
class QUARNBASTIL_EXPORT TcamEntrySwTableEntries_py;
class QUARNBASTIL_EXPORT TcamEntrySwTableIteratorState;
class QUARNBASTIL_EXPORT TcamEntryEntryWrapper;
class QUARNBASTIL_EXPORT TcamEntryResolverEntry;
class QUARNBASTIL_EXPORT TcamEntrySwTableHelperBase;
class QUARNBASTIL_EXPORT TcamEntryEntryLog;
class QUARNBASTIL_EXPORT TcamEntryInterface;

/// What a packet is compared with, and what happens to it: the largest entries of all families.
struct QUARNBASTIL_EXPORT TcamEntryFamily
    : FamilyClasses<"TcamEntry", TcamEntrySwTable, TcamEntryEntryHandle, TcamEntrySwTableEntries_py,
                    TcamEntrySwTableIteratorState, TcamEntryEntryWrapper, TcamEntryResolverEntry,
                    TcamEntrySwTableHelperBase, TcamEntryEntryLog, TcamEntryInterface> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0404};
  /// Too large for the slab to be worth it.
  static constexpr Fenrik::Storage kWrapperStorage = Fenrik::Storage::heap;

  using Key = TcamEntryEntryKey;
  using Entry = TcamEntryEntry;
  using LogEntry = TcamEntryLogEntry;
  using ResourceKeys = TcamEntryResourceKeys;
  using ConfigDriftEntry = TcamEntryConfigDriftEntry;
  using LogDriftEntry = TcamEntryLogDriftEntry;
  using ConfigDrift = TcamEntryConfigDrift;
  using EntryLogDrift = TcamEntryEntryLogDrift;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, SwTable>;
  using Constants = FamilyConstants<TcamEntryFamily>;

  static constexpr std::uint32_t kTransientAddEntrySalt = 0x8c98fc50;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0xd486e1e1;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x811d2a4f;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x4f1bbcdc;
  static constexpr std::uint32_t kTableEntriesSalt = 0x9b05688c;
};

using TcamEntryConstants = TcamEntryFamily::Constants;

class QUARNBASTIL_EXPORT TcamEntryEntryHandle final : public SwTableEntryHandle<TcamEntryFamily> {
 public:
  static constexpr std::string_view kTypeName = "EntryHandle";
  using SwTableEntryHandle::SwTableEntryHandle;
};

class QUARNBASTIL_EXPORT TcamEntrySwTableEntries_py final
    : public SwTableEntriesPy<TcamEntryFamily> {
 public:
  static constexpr std::string_view kTypeName = "SwTableEntries_py";
};

class QUARNBASTIL_EXPORT TcamEntrySwTableIteratorState final
    : public SwTableIteratorState<TcamEntryFamily> {};

class QUARNBASTIL_EXPORT TcamEntryEntryWrapper final : public EntryWrapper<TcamEntryFamily> {
 public:
  using EntryWrapper::EntryWrapper;
  FENRIK_FACTORY(tcamEntryEntryWrapper, TcamEntryEntryWrapper);
};

class QUARNBASTIL_EXPORT TcamEntryResolverEntry final : public ResolverEntry<TcamEntryFamily> {
 public:
  using ResolverEntry::ResolverEntry;
  FENRIK_FACTORY(tcamEntryResolverEntry, TcamEntryResolverEntry);
};

class QUARNBASTIL_EXPORT TcamEntrySwTableHelperBase : public SwTableHelperBase<TcamEntryFamily> {
 public:
  FENRIK_FACTORY(tcamEntrySwTableHelperBase, TcamEntrySwTableHelperBase);
};

class QUARNBASTIL_EXPORT TcamEntryEntryLog final : public EntryLog<TcamEntryFamily> {
 public:
  using EntryLog::EntryLog;
  FENRIK_FACTORY(tcamEntryEntryLog, TcamEntryEntryLog);
};

class QUARNBASTIL_EXPORT TcamEntrySwTable final : public SwTable<TcamEntryFamily> {
 public:
  using SwTable::SwTable;
  FENRIK_FACTORY(tcamEntrySwTable, TcamEntrySwTable);
};

class QUARNBASTIL_EXPORT TcamEntryInterface final : public Interface<TcamEntryFamily> {
 public:
  using Interface::Interface;
};

static_assert(FamilyTraits<TcamEntryFamily>);

extern template class SwTable<TcamEntryFamily>;
extern template class EntryLog<TcamEntryFamily>;
extern template class Interface<TcamEntryFamily>;

}  // namespace QuarnBastil
