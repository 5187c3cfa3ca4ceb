#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/TypeData.h"
#include "OrderedTable/FlatValueType.h"
#include "OrderedTable/TableDescriptor.h"

/// The attributes of the classes of a family, which all families share: their accesses are compiled
/// once, over the table's core, and refer to the family's own types by role.
namespace Asic {

/// The family's types, by their place in `TypeFacts::roles`.
struct TableRole {
  enum : std::uint8_t {
    none,
    key,
    entry,
    logEntry,
    resourceKeys,
    helper,
    wrapper,
    handle,
    log,
    iteratorState,
    entries,
    table,
    interface
  };
  static constexpr std::size_t kCount = interface + 1;
};

/// Accesses to a software table.
struct QUARNBASTIL_EXPORT TableAccess {
  using Access = Kiv::AttributeAccess;

  static const Access swTableHelper, transientAddEntry, transientRemoveEntry,
      transientVersionForKey, transientRemoveAllVersion, entryLog, groupResolver, entryHandleInLog;
  static const Access entryWrite, entryRemove, entryRemoveAll, entryRead, entryHas, entrys,
      getTableEntries_py, commitEntry, updateEntry, getNeededEntrySet, isResolverEntryResolved,
      setRsrcPtrs, entryFromConfig, restoreEntries, clearTable, initIterState, initIterStateFromKey,
      handleInitialized;
};

/// Accesses to the other classes of a family.
struct QUARNBASTIL_EXPORT InterfaceAccess {
  static const Kiv::AttributeAccess tableName, tableId, groupName, agentName, tableNamespace,
      entryLog, swTableStatus, swTableSet, makeSwTable, getIntf, handleInitialized, onDelete;
};
struct QUARNBASTIL_EXPORT WrapperAccess {
  static const Kiv::AttributeAccess entry, entryHandle, key, logEntry, rsrcKeys, setResolvedFields,
      retrieveClientData, finalizeOnSuccess, finalizeOnFailure;
};
struct QUARNBASTIL_EXPORT HelperAccess {
  static const Kiv::AttributeAccess finalizeOnSuccess, finalizeOnFailure, finalizeOnResourceUpdate;
};
struct QUARNBASTIL_EXPORT ResolverEntryAccess {
  static const Kiv::AttributeAccess swTable, swTableEntry;
};

/// The attributes of a table whose block of numbers starts at `fieldBase`. `LinkRow` is that of the
/// table's link to resources, or void; what is declared behind the link follows it.
template <std::uint16_t fieldBase, class LinkRow>
struct TableAttributes {
  static constexpr std::uint16_t kFieldBase = fieldBase;
  static constexpr std::uint16_t kLinkField = kFieldBase + 31;
  static constexpr std::uint16_t kBehindLink = kLinkField + !std::is_void_v<LinkRow>;
  using Of = TableAccess;

  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 2, swTableHelper, pointer, Of::swTableHelper);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 3, transientAddEntry, keyed, Of::transientAddEntry);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 4, transientRemoveEntry, keyed, Of::transientRemoveEntry);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 5, transientVersionForKey, keyed,
                          Of::transientVersionForKey);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 6, transientRemoveAllVersion, value,
                          Of::transientRemoveAllVersion);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 7, entryWrite, function, Of::entryWrite);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 9, entryRemove, function, Of::entryRemove);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 11, entryRemoveAll, function, Of::entryRemoveAll);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 13, entryRead, function, Of::entryRead);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 14, entry, function, Of::entryRead);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 15, entryHas, function, Of::entryHas);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 16, entrys, function, Of::entrys);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 18, getTableEntries_py, function, Of::getTableEntries_py);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 19, entryLog, pointer, Of::entryLog);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 20, groupResolver, pointer, Of::groupResolver);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 22, entryHandleInLog, queue, Of::entryHandleInLog);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 23, commitEntry, function, Of::commitEntry);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 24, updateEntry, function, Of::updateEntry);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 25, getNeededEntrySet, function, Of::getNeededEntrySet);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 26, isResolverEntryResolved, function,
                          Of::isResolverEntryResolved);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 27, setRsrcPtrs, function, Of::setRsrcPtrs);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 28, entryFromConfig, function, Of::entryFromConfig);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 29, restoreEntries, function, Of::restoreEntries);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 30, clearTable, function, Of::clearTable);
  static constexpr Kiv::AttributeFact attributeFact(Fenrik::FieldIndex<kLinkField>) noexcept
      requires(!std::is_void_v<LinkRow>) {
    return {Fenrik::FieldId(kLinkField), LinkRow::kName, Kiv::AttributeKind::pointer,
            &LinkRow::kAccess};
  }
  FENRIK_SHARED_ATTRIBUTE(kBehindLink, initIterState, function, Of::initIterState);
  FENRIK_SHARED_ATTRIBUTE(kBehindLink + 1, initIterStateFromKey, function,
                          Of::initIterStateFromKey);
  FENRIK_SHARED_ATTRIBUTE(kBehindLink + 2, handleInitialized, function, Of::handleInitialized);
};

struct InterfaceAttributes {
  static constexpr std::uint16_t kFieldBase = 256;
  using Of = InterfaceAccess;

  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 2, tableName, value, Of::tableName);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 3, tableId, value, Of::tableId);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 4, groupName, value, Of::groupName);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 5, agentName, value, Of::agentName);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 6, tableNamespace, value, Of::tableNamespace);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 7, entryLog, pointer, Of::entryLog);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 8, swTableStatus, pointer, Of::swTableStatus);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 9, swTableSet, pointer, Of::swTableSet);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 10, makeSwTable, function, Of::makeSwTable);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 11, getIntf, function, Of::getIntf);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 12, handleInitialized, function, Of::handleInitialized);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 13, onDelete, function, Of::onDelete);
};

/// `ResourceRows` has the rows of the entry's resources; void if there are none.
template <class ResourceRows>
struct WrapperAttributes : ResourceRows {
  static constexpr std::uint16_t kFieldBase = 128;
  static constexpr std::uint16_t kBehindResources = kFieldBase + 7 + ResourceRows::kCount;
  using Of = WrapperAccess;

  using ResourceRows::attributeFact;
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 2, entry, value, Of::entry);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 3, entryHandle, pointer, Of::entryHandle);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 4, key, value, Of::key);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 5, logEntry, value, Of::logEntry);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 6, rsrcKeys, value, Of::rsrcKeys);
  FENRIK_SHARED_ATTRIBUTE(kBehindResources, setResolvedFields, function, Of::setResolvedFields);
  FENRIK_SHARED_ATTRIBUTE(kBehindResources + 1, retrieveClientData, function,
                          Of::retrieveClientData);
  FENRIK_SHARED_ATTRIBUTE(kBehindResources + 2, finalizeOnSuccess, function, Of::finalizeOnSuccess);
  FENRIK_SHARED_ATTRIBUTE(kBehindResources + 3, finalizeOnFailure, function, Of::finalizeOnFailure);
};

struct HelperAttributes {
  static constexpr std::uint16_t kFieldBase = 128;
  using Of = HelperAccess;

  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 2, finalizeOnSuccess, function, Of::finalizeOnSuccess);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 3, finalizeOnFailure, function, Of::finalizeOnFailure);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 4, finalizeOnResourceUpdate, function,
                          Of::finalizeOnResourceUpdate);
};

struct ResolverEntryAttributes {
  static constexpr std::uint16_t kFieldBase = 256;
  using Of = ResolverEntryAccess;

  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 2, swTable, pointer, Of::swTable);
  FENRIK_SHARED_ATTRIBUTE(kFieldBase + 3, swTableEntry, pointer, Of::swTableEntry);
};

}  // namespace Asic
