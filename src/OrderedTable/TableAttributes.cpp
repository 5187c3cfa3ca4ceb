#include "OrderedTable/TableAttributes.h"

#include <cstring>

#include "OrderedTable/InterfaceCore.h"
#include "OrderedTable/OutermostCall.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/TableCore.h"
#include "OrderedTable/TableModules.h"
#include "OrderedTable/TypedEntryHandle.h"

namespace Asic {
namespace {

using Kiv::AttributeAccess;
using Kiv::kValueType;
using Kiv::TypeRef;
using Kiv::ValueType;
using View = InFlight::View;
using HandlePtr = TableCore::HandlePtr;
using WrapperPtr = TableCore::WrapperPtr;
using NodePtr = Fenrik::Ptr<Fenrik::Node>;

const FlatValueShape& shapeOf(const ValueType& type) {
  return *static_cast<const FlatValueShape*>(type.detail());
}

TableCore& coreAt(void* object) { return *static_cast<OrderedSwTable*>(object)->core(); }

template <class T>
const T& at(const void* value) {
  return *static_cast<const T*>(value);
}

constexpr TypeRef kKey{TableRole::key};
constexpr TypeRef kEntry{TableRole::entry};
constexpr TypeRef kDependency = kValueType<TableCore::DependencyPtr>;
constexpr TypeRef kBool = kValueType<bool>;
constexpr TypeRef kKeyAlone[] = {kKey};
constexpr TypeRef kWrite[] = {kKey, kEntry, kDependency};
constexpr TypeRef kRemove[] = {kKey, kDependency};
constexpr TypeRef kDependencyAlone[] = {kDependency};
constexpr TypeRef kBoolAlone[] = {kBool};
constexpr TypeRef kItem[] = {kValueType<Fenrik::Ptr<ResolverEntry>>};
constexpr TypeRef kWrapperAlone[] = {TypeRef(TableRole::wrapper)};
constexpr TypeRef kWrapperAndBool[] = {TypeRef(TableRole::wrapper), kBool};

/// Constructs a default entry, for a read to fill in.
void* defaultEntry(const TableCore& core, void* out) {
  const TableDescriptor::Records& records = core.descriptor().records;
  return std::memcpy(out, records.defaultEntry, records.entrySize);
}

/// A position in one of the keyed attributes of operations in flight.
struct InFlightPosition {
  const TableDescriptor& descriptor;
  InFlight::Walk walk;
};

template <View view>
constexpr Kiv::IteratorFacts kInFlight{
    .size = sizeof(InFlightPosition),
    .start =
        [](void* object, const void* key, void* iterator) {
          const TableCore& core = coreAt(object);
          ::new (iterator) InFlightPosition{
              core.descriptor(), key == nullptr
                                     ? InFlight::Walk(core.inFlight(), view)
                                     : InFlight::Walk(core.inFlight(), view, core.inFlight(key))};
        },
    .stop =
        [](void* iterator) noexcept {
          static_cast<InFlightPosition*>(iterator)->~InFlightPosition();
        },
    .nonnull = [](const void* iterator) { return bool(at<InFlightPosition>(iterator).walk); },
    .increment = [](void* iterator) { ++static_cast<InFlightPosition*>(iterator)->walk; },
    .value =
        [](const void* iterator, void* out) {
          const InFlightKey& key = *at<InFlightPosition>(iterator).walk;
          if constexpr (view == View::versions) {
            ::new (out) EntryVersion(key.counted ? key.version : EntryVersion());
          } else {
            ::new (out) WrapperPtr(view == View::adds ? key.add : key.remove);
          }
        },
    .key =
        [](const void* iterator, void* out) {
          const auto& position = at<InFlightPosition>(iterator);
          position.descriptor.records.key.fromWords(position.walk->key(), out);
        }};

using Handles = Fenrik::RQueueBaseConstIter<HandlePtr>;

constexpr Kiv::IteratorFacts kHandles{
    .size = sizeof(Handles),
    .start =
        [](void* object, const void* key, void* iterator) {
          const auto& queue = coreAt(object).entryHandleInLog();
          key == nullptr ? ::new (iterator) Handles(queue)
                         : ::new (iterator) Handles(queue, at<std::uint32_t>(key));
        },
    .stop = [](void* iterator) noexcept { static_cast<Handles*>(iterator)->~Handles(); },
    .nonnull = [](const void* iterator) { return at<Handles>(iterator).valid(); },
    .increment = [](void* iterator) { static_cast<Handles*>(iterator)->increment(); },
    .value = [](const void* iterator,
                void* out) { ::new (out) HandlePtr(at<Handles>(iterator).value()); },
    .key = [](const void* iterator,
              void* out) { ::new (out) std::uint32_t(at<Handles>(iterator).index()); }};

/// Resources do not change during a call.
template <class Call>
void oneCall(TableCore& core, const Call& call) {
  const ResourceHooks* const resources = core.descriptor().resources;
  OutermostCall::Scope scope(resources != nullptr ? resources->outermostCall(core.table())
                                                  : nullptr);
  call();
  scope.end();
}

void copyBytes(const ValueType& type, void* at, const void* from) {
  std::memcpy(at, from, type.size);
}

void entryReadCall(void* object, void* out, void* const* arguments) {
  const TableCore& core = coreAt(object);
  core.entryRead(arguments[0], defaultEntry(core, out));
}

}  // namespace

constinit const Kiv::ValueOps kFlatValueOps{
    .form = Kiv::ValueForm::text,
    .construct = [](const ValueType& type,
                    void* at) { copyBytes(type, at, shapeOf(type).defaultValue); },
    .copy = &copyBytes,
    .destroy = [](const ValueType&, void*) noexcept {},
    .textAppend =
        [](const ValueType& type, const void* value, std::string& text) {
          const FlatValueShape& shape = shapeOf(type);
          shape.first.textAppend(text, value);
          if (shape.second.empty()) return;
          text += ' ';
          shape.second.textAppend(text, static_cast<const std::byte*>(value) + shape.secondOffset);
        },
    .parse = [](const ValueType& type, std::string_view text,
                void* value) { return shapeOf(type).first.fromText(text, value); }};

// What a table stores.

constinit const AttributeAccess TableAccess::swTableHelper{
    .value = TypeRef(TableRole::helper),
    .read = [](void* object, void* out) { ::new (out) NodePtr(coreAt(object).swTableHelper()); },
    .write = [](void* object,
                const void* value) { coreAt(object).swTableHelperIs(at<NodePtr>(value)); }};
constinit const AttributeAccess TableAccess::transientAddEntry{
    .value = TypeRef(TableRole::wrapper), .key = kKey, .iterator = &kInFlight<View::adds>};
constinit const AttributeAccess TableAccess::transientRemoveEntry{
    .value = TypeRef(TableRole::wrapper), .key = kKey, .iterator = &kInFlight<View::removes>};
constinit const AttributeAccess TableAccess::transientVersionForKey{
    .value = kValueType<EntryVersion>, .key = kKey, .iterator = &kInFlight<View::versions>};
constinit const AttributeAccess TableAccess::transientRemoveAllVersion{
    .value = kValueType<MajorVersion>,
    .read = [](void* object,
               void* out) { ::new (out) MajorVersion(coreAt(object).transientRemoveAllVersion()); },
    .write =
        [](void* object, const void* value) {
          coreAt(object).transientRemoveAllVersionIs(at<MajorVersion>(value));
        }};
constinit const AttributeAccess TableAccess::entryLog{
    .value = TypeRef(TableRole::log),
    .read = [](void* object,
               void* out) { ::new (out) Fenrik::Ptr<EntryLogCore>(coreAt(object).entryLog()); },
    .write =
        [](void* object, const void* value) {
          coreAt(object).entryLogIs(at<Fenrik::Ptr<EntryLogCore>>(value));
        }};
constinit const AttributeAccess TableAccess::groupResolver{
    .value = kValueType<Fenrik::Ptr<GroupResolver>>,
    .read =
        [](void* object, void* out) {
          ::new (out) Fenrik::Ptr<GroupResolver>(coreAt(object).groupResolver());
        },
    .write =
        [](void* object, const void* value) {
          coreAt(object).groupResolverIs(at<Fenrik::Ptr<GroupResolver>>(value));
        }};
constinit const AttributeAccess TableAccess::entryHandleInLog{
    .value = TypeRef(TableRole::handle), .key = kValueType<std::uint32_t>, .iterator = &kHandles};

// What clients call.

constinit const AttributeAccess TableAccess::entryWrite{
    .value = TypeRef(TableRole::handle),
    .arguments = kWrite,
    .call = [](void* object, void* out, void* const* arguments) {
      ::new (out) HandlePtr(coreAt(object).entryWrite(arguments[0], arguments[1],
                                                      at<TableCore::DependencyPtr>(arguments[2])));
    }};
constinit const AttributeAccess TableAccess::entryRemove{
    .value = TypeRef(TableRole::handle),
    .arguments = kRemove,
    .call = [](void* object, void* out, void* const* arguments) {
      ::new (out) HandlePtr(
          coreAt(object).entryRemove(arguments[0], at<TableCore::DependencyPtr>(arguments[1])));
    }};
constinit const AttributeAccess TableAccess::entryRemoveAll{
    .arguments = kDependencyAlone, .call = [](void* object, void*, void* const* arguments) {
      coreAt(object).entryRemoveAll(at<TableCore::DependencyPtr>(arguments[0]));
    }};
constinit const AttributeAccess TableAccess::entryRead{
    .value = kEntry, .arguments = kKeyAlone, .reading = true, .call = &entryReadCall};
constinit const AttributeAccess TableAccess::entryHas{
    .value = kBool,
    .arguments = kKeyAlone,
    .reading = true,
    .call = [](void* object, void* out, void* const* arguments) {
      ::new (out) bool(coreAt(object).entryHas(arguments[0]));
    }};
constinit const AttributeAccess TableAccess::entrys{
    .value = kValueType<std::uint32_t>,
    .reading = true,
    .call = [](void* object, void* out, void* const*) {
      ::new (out) std::uint32_t(coreAt(object).entrys());
    }};
constinit const AttributeAccess TableAccess::getTableEntries_py{
    .value = TypeRef(TableRole::entries),
    .reading = true,
    .call = [](void* object, void* out, void* const*) {
      const TableCore& core = coreAt(object);
      const TableDescriptor& family = core.descriptor();
      auto entries = family.make.entries();
      const auto state = family.make.iteratorState();
      core.initIterState(*state);
      std::vector<std::byte> entry(family.records.entrySize);
      while (TableCore::maybeUpdateCurrentEntry(*state, defaultEntry(core, entry.data())),
             state->state().hasCurrent()) {
        family.make.entriesAdd(*entries, entry.data());
      }
      ::new (out) NodePtr(std::move(entries));
    }};
constinit const AttributeAccess TableAccess::entryFromConfig{
    .value = kEntry,
    .arguments = kKeyAlone,
    .reading = true,
    .call = [](void* object, void* out, void* const* arguments) {
      const TableCore& core = coreAt(object);
      core.entryFromConfig(arguments[0], defaultEntry(core, out));
    }};
constinit const AttributeAccess TableAccess::initIterState{
    .value = TypeRef(TableRole::iteratorState),
    .reading = true,
    .call = [](void* object, void* out, void* const*) {
      const TableCore& core = coreAt(object);
      auto state = core.descriptor().make.iteratorState();
      core.initIterState(*state);
      ::new (out) Fenrik::Ptr<SwTableIteratorStateBase>(std::move(state));
    }};
constinit const AttributeAccess TableAccess::initIterStateFromKey{
    .value = TypeRef(TableRole::iteratorState),
    .arguments = kKeyAlone,
    .reading = true,
    .call = [](void* object, void* out, void* const* arguments) {
      const TableCore& core = coreAt(object);
      auto state = core.descriptor().make.iteratorState();
      core.initIterStateFromKey(*state, arguments[0]);
      ::new (out) Fenrik::Ptr<SwTableIteratorStateBase>(std::move(state));
    }};

// What the resolver, the interface and the resources call.

constinit const AttributeAccess TableAccess::commitEntry{
    .arguments = kItem, .call = [](void* object, void*, void* const* arguments) {
      static_cast<OrderedSwTable*>(object)->commitEntry(
          at<Fenrik::Ptr<ResolverEntry>>(arguments[0]));
    }};
constinit const AttributeAccess TableAccess::updateEntry{
    .value = TypeRef(TableRole::handle),
    .arguments = kKeyAlone,
    .call = [](void* object, void* out, void* const* arguments) {
      TableCore& core = coreAt(object);
      HandlePtr handle;
      oneCall(core, [&] { handle = core.updateEntry(arguments[0]); });
      ::new (out) HandlePtr(std::move(handle));
    }};
constinit const AttributeAccess TableAccess::getNeededEntrySet{
    .value = kValueType<Fenrik::Ptr<NeededEntry>>,
    .arguments = kWrapperAlone,
    .reading = true,
    .call = [](void* object, void* out, void* const* arguments) {
      ::new (out)
          Fenrik::Ptr<NeededEntry>(coreAt(object).getNeededEntrySet(*at<WrapperPtr>(arguments[0])));
    }};
constinit const AttributeAccess TableAccess::isResolverEntryResolved{
    .value = kBool,
    .arguments = kItem,
    .call = [](void* object, void* out, void* const* arguments) {
      ::new (out) bool(coreAt(object).isResolverEntryResolved(
          at<TableResolverEntry>(at<Fenrik::Ptr<ResolverEntry>>(arguments[0]).get())));
    }};
constinit const AttributeAccess TableAccess::setRsrcPtrs{
    .arguments = kWrapperAndBool, .call = [](void* object, void*, void* const* arguments) {
      coreAt(object).setRsrcPtrs(*at<WrapperPtr>(arguments[0]), at<bool>(arguments[1]));
    }};
constinit const AttributeAccess TableAccess::restoreEntries{
    .call = [](void* object, void*, void* const*) { coreAt(object).restoreEntries(); }};
constinit const AttributeAccess TableAccess::clearTable{
    .arguments = kBoolAlone, .call = [](void* object, void*, void* const* arguments) {
      TableCore& core = coreAt(object);
      oneCall(core, [&] { core.clearTable(at<bool>(arguments[0])); });
    }};
constinit const AttributeAccess TableAccess::handleInitialized{
    .call = [](void* object, void*, void* const*) { coreAt(object).handleInitialized(); }};

// The interface.

namespace {

InterfaceCore& interfaceAt(void* object) { return *static_cast<InterfaceCore*>(object); }

template <const char* TableDescriptor::*name>
constexpr AttributeAccess kNameOfFamily{
    .value = kValueType<Fenrik::String>, .read = [](void* object, void* out) {
      ::new (out) Fenrik::String(interfaceAt(object).descriptor().*name);
    }};

constexpr TypeRef kTableArguments[] = {kValueType<UnitId>, TypeRef(TableRole::helper), kBool};
constexpr TypeRef kInterfaceArguments[] = {kValueType<Fenrik::Ptr<OrderedTableInterface>>};

}  // namespace

constinit const AttributeAccess InterfaceAccess::tableName =
    kNameOfFamily<&TableDescriptor::tableName>;
constinit const AttributeAccess InterfaceAccess::tableId{
    .value = kValueType<SwTableId>, .read = [](void* object, void* out) {
      ::new (out) SwTableId(interfaceAt(object).descriptor().tableId);
    }};
constinit const AttributeAccess InterfaceAccess::groupName =
    kNameOfFamily<&TableDescriptor::groupName>;
constinit const AttributeAccess InterfaceAccess::agentName =
    kNameOfFamily<&TableDescriptor::agentName>;
constinit const AttributeAccess InterfaceAccess::tableNamespace =
    kNameOfFamily<&TableDescriptor::tableNamespace>;
constinit const AttributeAccess InterfaceAccess::entryLog{
    .value = TypeRef(TableRole::log),
    .read =
        [](void* object, void* out) {
          ::new (out) Fenrik::Ptr<EntryLogCore>(interfaceAt(object).entryLog());
        },
    .write =
        [](void* object, const void* value) {
          interfaceAt(object).entryLogIs(at<Fenrik::Ptr<EntryLogCore>>(value));
        }};
constinit const AttributeAccess InterfaceAccess::swTableStatus{
    .value = kValueType<Fenrik::Ptr<OrderedSwTableStatus>>,
    .read =
        [](void* object, void* out) {
          ::new (out) Fenrik::Ptr<OrderedSwTableStatus>(interfaceAt(object).swTableStatus());
        },
    .write =
        [](void* object, const void* value) {
          interfaceAt(object).swTableStatusIs(at<Fenrik::Ptr<OrderedSwTableStatus>>(value));
        }};
constinit const AttributeAccess InterfaceAccess::swTableSet{
    .value = kValueType<Fenrik::Ptr<OrderedSwTableSet>>,
    .read =
        [](void* object, void* out) {
          ::new (out) Fenrik::Ptr<OrderedSwTableSet>(interfaceAt(object).swTableSet());
        },
    .write =
        [](void* object, const void* value) {
          interfaceAt(object).swTableSetIs(at<Fenrik::Ptr<OrderedSwTableSet>>(value));
        }};
constinit const AttributeAccess InterfaceAccess::makeSwTable{
    .value = TypeRef(TableRole::table),
    .arguments = kTableArguments,
    .call = [](void* object, void* out, void* const* arguments) {
      ::new (out) Fenrik::Ptr<OrderedSwTable>(interfaceAt(object).makeSwTable(
          at<UnitId>(arguments[0]), at<NodePtr>(arguments[1]), at<bool>(arguments[2])));
    }};
constinit const AttributeAccess InterfaceAccess::getIntf{
    .value = TypeRef(TableRole::interface),
    .arguments = kInterfaceArguments,
    .call = [](void* object, void* out, void* const*) {
      ::new (out) Fenrik::Ptr<TableInterfaceBase>(
          InterfaceCore::registered(interfaceAt(object).descriptor()));
    }};
constinit const AttributeAccess InterfaceAccess::handleInitialized{
    .call = [](void* object, void*, void* const*) { interfaceAt(object).handleInitialized(); }};
constinit const AttributeAccess InterfaceAccess::onDelete{
    .call = [](void* object, void*, void* const*) { interfaceAt(object).onDelete(); }};

// The wrapper, the helper and the queue item.

namespace {

EntryWrapperBase& wrapperAt(void* object) { return *static_cast<EntryWrapperBase*>(object); }

/// The handle knows the family.
const TableDescriptor& familyOf(const EntryWrapperBase& wrapper) {
  return dynamic_cast<const TableEntryHandle&>(*wrapper.entryHandle()).descriptor();
}

/// A part of the wrapper's entry.
template <std::size_t (*offset)(const TableDescriptor::Records&),
          std::size_t (*size)(const TableDescriptor::Records&)>
void readPart(void* object, void* out) {
  const EntryWrapperBase& wrapper = wrapperAt(object);
  const TableDescriptor::Records& records = familyOf(wrapper).records;
  std::memcpy(out, wrapper.entryBytes() + offset(records), size(records));
}

std::size_t atStart(const TableDescriptor::Records&) { return 0; }
std::size_t atResourceKeys(const TableDescriptor::Records& records) {
  return records.resourceKeysInEntry;
}
std::size_t sizeOfEntry(const TableDescriptor::Records& records) { return records.entrySize; }
std::size_t sizeOfKey(const TableDescriptor::Records& records) { return records.key.size; }
std::size_t sizeOfLogEntry(const TableDescriptor::Records& records) {
  return records.logEntry.size;
}
std::size_t sizeOfResourceKeys(const TableDescriptor::Records& records) {
  return records.resourceKeys.size;
}

constexpr TypeRef kTable{TableRole::table};
constexpr TypeRef kWrapper{TableRole::wrapper};
constexpr TypeRef kTableAndBool[] = {kTable, kBool};
constexpr TypeRef kWrapperBoolTable[] = {kWrapper, kBool, kTable};
constexpr TypeRef kWrapperTableBool[] = {kWrapper, kTable, kBool};

OrderedSwTable& tableIn(void* argument) { return *at<Fenrik::Ptr<OrderedSwTable>>(argument); }
const TableDescriptor::Helper& hooksFor(OrderedSwTable& table) {
  return table.core()->descriptor().helper;
}
Fenrik::Node& helperAt(void* object) { return *static_cast<Fenrik::Node*>(object); }

}  // namespace

constinit const AttributeAccess WrapperAccess::entry{.value = kEntry,
                                                     .read = &readPart<&atStart, &sizeOfEntry>};
constinit const AttributeAccess WrapperAccess::entryHandle{
    .value = TypeRef(TableRole::handle), .read = [](void* object, void* out) {
      ::new (out) HandlePtr(wrapperAt(object).entryHandle());
    }};
constinit const AttributeAccess WrapperAccess::key{.value = kKey,
                                                   .read = &readPart<&atStart, &sizeOfKey>};
constinit const AttributeAccess WrapperAccess::logEntry{
    .value = TypeRef(TableRole::logEntry), .read = &readPart<&atStart, &sizeOfLogEntry>};
constinit const AttributeAccess WrapperAccess::rsrcKeys{
    .value = TypeRef(TableRole::resourceKeys),
    .read = &readPart<&atResourceKeys, &sizeOfResourceKeys>};
constinit const AttributeAccess WrapperAccess::setResolvedFields{
    .call = [](void* object, void*, void* const*) {
      EntryWrapperBase& wrapper = wrapperAt(object);
      const ResourceHooks* const resources = familyOf(wrapper).resources;
      if (resources != nullptr) resources->setResolvedFields(wrapper);
    }};
constinit const AttributeAccess WrapperAccess::retrieveClientData{
    .call = [](void*, void*, void* const*) {}};
constinit const AttributeAccess WrapperAccess::finalizeOnSuccess{
    .arguments = kTableAndBool, .call = [](void* object, void*, void* const* arguments) {
      wrapperAt(object).finalizeOnSuccess(familyOf(wrapperAt(object)), tableIn(arguments[0]),
                                          at<bool>(arguments[1]));
    }};
constinit const AttributeAccess WrapperAccess::finalizeOnFailure{
    .value = kBool,
    .arguments = kTableAndBool,
    .call = [](void* object, void* out, void* const* arguments) {
      ::new (out) bool(wrapperAt(object).finalizeOnFailure(
          familyOf(wrapperAt(object)), tableIn(arguments[0]), at<bool>(arguments[1])));
    }};

constinit const AttributeAccess HelperAccess::finalizeOnSuccess{
    .arguments = kWrapperBoolTable, .call = [](void* object, void*, void* const* arguments) {
      OrderedSwTable& table = tableIn(arguments[2]);
      hooksFor(table).finalizeOnSuccess(helperAt(object), *at<WrapperPtr>(arguments[0]),
                                        at<bool>(arguments[1]), table);
    }};
constinit const AttributeAccess HelperAccess::finalizeOnFailure{
    .value = kBool,
    .arguments = kWrapperBoolTable,
    .call = [](void* object, void* out, void* const* arguments) {
      OrderedSwTable& table = tableIn(arguments[2]);
      ::new (out) bool(hooksFor(table).finalizeOnFailure(
          helperAt(object), *at<WrapperPtr>(arguments[0]), at<bool>(arguments[1]), table));
    }};
constinit const AttributeAccess HelperAccess::finalizeOnResourceUpdate{
    .value = kBool,
    .arguments = kWrapperTableBool,
    .call = [](void* object, void* out, void* const* arguments) {
      OrderedSwTable& table = tableIn(arguments[1]);
      ::new (out) bool(hooksFor(table).finalizeOnResourceUpdate(
          helperAt(object), *at<WrapperPtr>(arguments[0]), table, at<bool>(arguments[2])));
    }};

constinit const AttributeAccess ResolverEntryAccess::swTable{
    .value = kTable, .read = [](void* object, void* out) {
      ::new (out) Fenrik::Ptr<OrderedSwTable>(static_cast<TableResolverEntry*>(object)->table());
    }};
constinit const AttributeAccess ResolverEntryAccess::swTableEntry{
    .value = kWrapper, .read = [](void* object, void* out) {
      ::new (out) WrapperPtr(static_cast<TableResolverEntry*>(object)->wrapper());
    }};

}  // namespace Asic
