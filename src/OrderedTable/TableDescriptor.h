#pragma once

#include <array>
#include <cstddef>
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
class SwTableIteratorStateBase;

/// All facts about a family that the compiled-once table logic uses: a constant that the family's
/// own source generates from its traits.
///
/// An entry is an object of the client's type. It is passed by its address, which is also that of
/// its key.
struct TableDescriptor {
  /// Class names of the family, as used in traces, registry and assertions.
  struct Names {
    const char* table;
    const char* wrapper;
    const char* log;
    const char* interface;
    /// Full name of the interface's class: its key in the registries.
    const char* registryKey;
  };

  /// Trace handles of the family. Generic reads and generic writes have separate handles, both
  /// named after the table.
  struct Traces {
    const Kiv::TraceHandle& table;
    const Kiv::TraceHandle& writes;
    const Kiv::TraceHandle& reads;
    const Kiv::TraceHandle& iteration;
    const Kiv::TraceHandle& log;
    const Kiv::TraceHandle& interface;
    const Kiv::TraceHandle& handle;
  };

  /// Layout of the records in shared memory.
  struct Records {
    FlatShape key;
    FlatShape logEntry;
    /// Empty if the family has no resources.
    FlatShape resourceKeys;
    /// Offset of the resource keys in the client's entry.
    std::size_t resourceKeysInEntry;
    /// Size of the client's entry.
    std::size_t entrySize;
    /// Offsets in the configuration record, which begins with the log entry.
    std::size_t resourceKeysOffset;
    std::size_t logVersionOffset;
    std::size_t isDeletedOffset;
    /// Record sizes.
    std::size_t configSize;
    std::size_t logSize;
    /// A default-constructed client's entry.
    const void* defaultEntry;
  };

  /// Names of the collections' types, and capacities in records.
  struct Collections {
    std::string_view configType;
    std::string_view logType;
    std::uint64_t configCapacity;
    std::uint64_t logCapacity;
  };

  /// Factories for objects of the family's classes.
  struct Makers {
    Fenrik::Ptr<OrderedSwTable::EntryHandle> (*handle)(const EntryVersion& version, const void* key,
                                                       OrderedSwTable& table);
    /// A wrapper with a copy of `entry`, under `key`.
    Fenrik::Ptr<EntryWrapperBase> (*wrapper)(
        const void* entry, const void* key, const Fenrik::Ptr<OrderedSwTable::EntryHandle>& handle);
    /// A wrapper whose entry holds only the key.
    Fenrik::Ptr<EntryWrapperBase> (*keyWrapper)(
        const void* key, const Fenrik::Ptr<OrderedSwTable::EntryHandle>& handle);
    Fenrik::Ptr<ResolverEntry> (*resolverEntry)(
        const Fenrik::Ptr<const DependencyEntryHandle>& dependency, EntryFlags flags,
        OrderedSwTable& table, const Fenrik::Ptr<EntryWrapperBase>& wrapper);
    Fenrik::Ptr<Fenrik::Node> (*helper)();
    Fenrik::Ptr<SwTableIteratorStateBase> (*iteratorState)();
    /// An empty copy of a table, and a further entry in it.
    Fenrik::Ptr<Fenrik::Node> (*entries)();
    void (*entriesAdd)(Fenrik::Node& entries, const void* entry);
    Fenrik::Ptr<OrderedSwTable> (*table)(const Fenrik::Ptr<const CanonicalTableName>& name,
                                         UnitId unitId, OrderedSwTableSet* set,
                                         const Fenrik::Ptr<EntryLogCore>& log,
                                         const Fenrik::Ptr<GroupResolver>& resolver);
    Fenrik::Ptr<EntryLogCore> (*log)(SwTableId tableId,
                                     const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                                     const Fenrik::Ptr<GroupInterface>& groupInterface,
                                     const Fenrik::String& agentName);
  };

  /// The client's hooks. They are called with the family's own types; the helper is an object of
  /// the family's helper class.
  struct Helper {
    void (*finalizeOnSuccess)(Fenrik::Node& helper, EntryWrapperBase& wrapper, bool isDelete,
                              OrderedSwTable& table);
    bool (*finalizeOnFailure)(Fenrik::Node& helper, EntryWrapperBase& wrapper, bool isDelete,
                              OrderedSwTable& table);
    bool (*finalizeOnResourceUpdate)(Fenrik::Node& helper, EntryWrapperBase& wrapper,
                                     OrderedSwTable& table, bool someResourceHasFailed);
  };

  /// Hash salts of the keyed collections.
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
  /// First number of the block that holds the table's attributes.
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
  /// Operator message for a lost collection.
  Kiv::LogHandle* lostLog;
  /// Null if the table uses no resources.
  const ResourceHooks* resources;
};

/// Registers a family in the process for the lifetime of the object, which is a static of the
/// library that contains the family.
class QUARNBASTIL_EXPORT TableRegistration {
 public:
  /// Aborts if another family already has the table id.
  explicit TableRegistration(const TableDescriptor& descriptor);
  ~TableRegistration();
  TableRegistration(const TableRegistration&) = delete;
  TableRegistration& operator=(const TableRegistration&) = delete;

  /// All registered families, by table id.
  static std::vector<const TableDescriptor*> all();

 private:
  SwTableId tableId_;
};

/// Keeps what identifies an entry, its key and its resource keys, from a helper: what was there at
/// the construction is there again at the end.
class IdentityGuard {
 public:
  IdentityGuard(const TableDescriptor::Records& records, std::byte* entry) noexcept;
  ~IdentityGuard();
  IdentityGuard(const IdentityGuard&) = delete;
  IdentityGuard& operator=(const IdentityGuard&) = delete;

 private:
  const TableDescriptor::Records& records_;
  std::byte* entry_;
  std::array<std::byte, Drift::Format::kMaxKeySize> key_;
  std::array<std::byte, Drift::Format::kMaxKeySize> resourceKeys_;
};

/// Formats an entry's key for traces.
struct KeyText {
  KeyText(const TableDescriptor& ofDescriptor, const void* ofKey) noexcept
      : descriptor(ofDescriptor), key(ofKey) {}

  const TableDescriptor& descriptor;
  const void* key;
};
/// Formats a client's entry for traces: the log entry, then the resource keys if there are any.
struct EntryText {
  EntryText(const TableDescriptor& ofDescriptor, const void* ofEntry) noexcept
      : descriptor(ofDescriptor), entry(ofEntry) {}

  const TableDescriptor& descriptor;
  const void* entry;
};
/// Formats a log entry for traces.
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
