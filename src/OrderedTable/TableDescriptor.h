#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "Fenrik/Export.h"
#include "Fenrik/Format.h"
#include "Fenrik/KivType.h"
#include "Fenrik/Ptr.h"
#include "Kiv/TraceHandle.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/EntryVersion.h"
#include "OrderedTable/FlatShape.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/ResolverEntry.h"

namespace Kiv {
class LogHandle;
}
namespace Stavro {
class EntityManager;
}

namespace Asic {

class GroupInterface;
class GroupResolver;

class EntryLogCore;
class EntryWrapperBase;
struct ResourceHooks;

/// Everything that the compiled-once logic of a table knows about its family: a constant that the
/// family's own source makes out of its traits.
///
/// An entry is an object of the client's type, addressed by its first byte, which is its key's.
struct TableDescriptor {
  /// The classes of the family as traces, registry and assertions name them.
  struct Names {
    const char* table;
    const char* wrapper;
    const char* log;
    const char* interface;
    /// Full name of the interface's class, its key in the registries.
    const char* registryKey;
  };

  /// Where each part of the family traces. Generic code that reads and generic code that writes
  /// have a handle of their own, both named after the table.
  struct Traces {
    const Kiv::TraceHandle& table;
    const Kiv::TraceHandle& writes;
    const Kiv::TraceHandle& reads;
    const Kiv::TraceHandle& iteration;
    const Kiv::TraceHandle& log;
    const Kiv::TraceHandle& interface;
    const Kiv::TraceHandle& handle;
  };

  /// The records in shared memory.
  struct Records {
    FlatShape key;
    FlatShape logEntry;
    /// Empty for a family without resources.
    FlatShape resourceKeys;
    /// Of the client's entry, behind its first byte.
    std::size_t resourceKeysInEntry;
    std::size_t entrySize;
    /// Of the configuration record, which begins with the log entry.
    std::size_t resourceKeysOffset;
    std::size_t logVersionOffset;
    std::size_t isDeletedOffset;
    std::size_t configSize;
    std::size_t logSize;
    /// A client's entry that nobody has filled in.
    const void* defaultEntry;
  };

  /// Names of the collections' types and attributes, and how much they hold.
  struct Collections {
    std::string_view configType;
    std::string_view logType;
    std::uint64_t configCapacity;
    std::uint64_t logCapacity;
  };

  /// Objects of the family's own classes.
  struct Makers {
    Fenrik::Ptr<OrderedSwTable::EntryHandle> (*handle)(const EntryVersion& version, const void* key,
                                                       OrderedSwTable& table);
    /// A wrapper of a copy of `entry`, under `key`.
    Fenrik::Ptr<EntryWrapperBase> (*wrapper)(
        const void* entry, const void* key, const Fenrik::Ptr<OrderedSwTable::EntryHandle>& handle);
    /// A wrapper of an entry that holds the key alone.
    Fenrik::Ptr<EntryWrapperBase> (*keyWrapper)(
        const void* key, const Fenrik::Ptr<OrderedSwTable::EntryHandle>& handle);
    Fenrik::Ptr<ResolverEntry> (*resolverEntry)(
        const Fenrik::Ptr<const DependencyEntryHandle>& dependency, EntryFlags flags,
        OrderedSwTable& table, const Fenrik::Ptr<EntryWrapperBase>& wrapper);
    Fenrik::Ptr<Fenrik::Node> (*helper)();
    Fenrik::Ptr<OrderedSwTable> (*table)(const Fenrik::Ptr<const CanonicalTableName>& name,
                                         UnitId unitId, OrderedSwTableSet* set,
                                         const Fenrik::Ptr<EntryLogCore>& log,
                                         const Fenrik::Ptr<GroupResolver>& resolver);
    Fenrik::Ptr<EntryLogCore> (*log)(SwTableId tableId,
                                     const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                                     const Fenrik::Ptr<GroupInterface>& groupInterface,
                                     const Fenrik::String& agentName);
  };

  /// The client's hooks, called with the family's own types. The helper is one of the family's.
  struct Helper {
    void (*finalizeOnSuccess)(Fenrik::Node& helper, EntryWrapperBase& wrapper, bool isDelete,
                              OrderedSwTable& table);
    bool (*finalizeOnFailure)(Fenrik::Node& helper, EntryWrapperBase& wrapper, bool isDelete,
                              OrderedSwTable& table);
    bool (*finalizeOnResourceUpdate)(Fenrik::Node& helper, EntryWrapperBase& wrapper,
                                     OrderedSwTable& table, bool someResourceHasFailed);
  };

  /// Salts of the keyed collections.
  struct Salts {
    std::uint32_t tableEntries;
    std::uint32_t transientAddEntry;
    std::uint32_t transientRemoveEntry;
    std::uint32_t transientVersionForKey;
    std::uint32_t tableConfigDrift;
  };

  SwTableId tableId;
  const char* tableName;
  const char* tableNamespace;
  const char* agentName;
  const char* groupName;
  /// The block of numbers in which the table's attributes lie.
  std::uint16_t tableFieldBase;
  Kiv::KivType tableType;
  const std::type_info& handleType;
  const std::type_info& resolverEntryType;
  /// Compares two keys of the family's type.
  bool (*keyIsEq)(const void* a, const void* b) noexcept;
  Names names;
  Traces traces;
  Records records;
  Collections collections;
  Makers make;
  Helper helper;
  Salts salts;
  /// The operator's message about a lost collection.
  Kiv::LogHandle* lostLog;
  /// Null for a table that is not linked to resources.
  const ResourceHooks* resources;
};

/// Enters a family among those that this process knows, for as long as the object lives: a static
/// one of the library that has the family.
class QUARNBASTIL_EXPORT TableRegistration {
 public:
  /// Ends the process if another family has the table id.
  explicit TableRegistration(const TableDescriptor& descriptor);
  ~TableRegistration();
  TableRegistration(const TableRegistration&) = delete;
  TableRegistration& operator=(const TableRegistration&) = delete;

  /// All families, by table id.
  static std::vector<const TableDescriptor*> all();

 private:
  SwTableId tableId_;
};

/// An entry's key for traces.
struct KeyText {
  KeyText(const TableDescriptor& ofDescriptor, const void* ofKey) noexcept
      : descriptor(ofDescriptor), key(ofKey) {}

  const TableDescriptor& descriptor;
  const void* key;
};
/// A client's entry for traces: what goes to the log, then the resource keys where there are any.
struct EntryText {
  EntryText(const TableDescriptor& ofDescriptor, const void* ofEntry) noexcept
      : descriptor(ofDescriptor), entry(ofEntry) {}

  const TableDescriptor& descriptor;
  const void* entry;
};
/// What goes to the log, for traces.
struct LogEntryText {
  LogEntryText(const TableDescriptor& ofDescriptor, const void* ofLogEntry) noexcept
      : descriptor(ofDescriptor), logEntry(ofLogEntry) {}

  const TableDescriptor& descriptor;
  const void* logEntry;
};

std::string textOf(const KeyText& key);
std::string textOf(const EntryText& entry);
std::string textOf(const LogEntryText& entry);

template <class T>
concept DescribedText =
    std::is_same_v<T, KeyText> || std::is_same_v<T, EntryText> || std::is_same_v<T, LogEntryText>;

}  // namespace Asic

template <Asic::DescribedText T>
struct fmt::formatter<T> : Fenrik::TextFormatter {
  auto format(const T& text, fmt::format_context& context) const noexcept {
    return put(Asic::textOf(text), context);
  }
};
