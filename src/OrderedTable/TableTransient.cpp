#include "Fenrik/Attribute.h"
#include "Kiv/Trace.h"
#include "OrderedTable/OrderedSwTableSet.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

TableCore::TableCore(OrderedSwTable& table, const TableDescriptor& descriptor,
                     Fenrik::Ptr<EntryLogCore> entryLog, Fenrik::Ptr<GroupResolver> groupResolver)
    : table_(table),
      descriptor_(descriptor),
      inFlight_(descriptor.records.key.words(), descriptor.salts.transientAddEntry),
      entryLog_(std::move(entryLog)),
      groupResolver_(std::move(groupResolver)),
      nothingNeeded_(Fenrik::ptrIsImpl<NeededEntry>()) {
  table.coreIs(this);
}

TableCore::~TableCore() {
  groupResolver_->tableGone(table_);
  entryHandleInLog_.doClear(false);
  if (auto* const set = table_.swTableSet()) set->coreGone(*this);
  table_.coreIs(nullptr);
}

void TableCore::handleInitialized() {
  KIV_TRACE(ownTrace(), 8, name(), "doesMarkSweep: False hwErrorHandling: False");
  swTableHelperIs(descriptor_.make.helper());
  table_.statsIs();
}

void TableCore::swTableHelperIs(Fenrik::Ptr<Fenrik::Node> helper) {
  Fenrik::Impl::attributePointerIs(table_, table_.publisher_, field(Field::kSwTableHelper),
                                   swTableHelper_, std::move(helper));
}

void TableCore::entryLogIs(Fenrik::Ptr<EntryLogCore> log) {
  Fenrik::Impl::attributePointerIs(table_, table_.publisher_, field(Field::kEntryLog), entryLog_,
                                   std::move(log));
}

void TableCore::groupResolverIs(Fenrik::Ptr<GroupResolver> resolver) {
  Fenrik::Impl::attributePointerIs(table_, table_.publisher_, field(Field::kGroupResolver),
                                   groupResolver_, std::move(resolver));
}

void TableCore::transientRemoveAllVersionIs(MajorVersion version) {
  Fenrik::Impl::attributeValueIs(table_.publisher_, field(Field::kTransientRemoveAllVersion),
                                 transientRemoveAllVersion_, version);
  noteInFlight();
}

/// Reports to the set, which counts tables with operations in flight, so that it need not ask all.
void TableCore::noteInFlight() {
  if (countedInFlight_ == hasInFlight()) return;
  countedInFlight_ = !countedInFlight_;
  if (auto* const set = table_.swTableSet()) set->inFlightCount(*this, countedInFlight_);
}

/// Copies the value, so that it stays valid for all subscribers, whatever one of them does to the
/// table.
template <class Value>
[[gnu::cold, gnu::noinline]] void TableCore::publishKeyed(std::uint16_t number, InFlightKey& key,
                                                          const Value& value, bool present) {
  const Fenrik::Publisher& publisher = table_.publisher_;
  const InFlight::Hold hold(inFlight_, key);
  const Value told = value;
  publisher.publishChangeRecursive(field(number), key.key(), present ? &told : nullptr,
                                   descriptor_.keyIsEq);
}

namespace {

constexpr auto kAddField = TableCore::Field::kTransientAddEntry;
constexpr auto kRemoveField = TableCore::Field::kTransientRemoveEntry;

}  // namespace

TableCore::WrapperPtr TableCore::sideIs(Side side, InFlightKey& key, WrapperPtr wrapper) {
  const bool isAdd = side == Side::add;
  WrapperPtr& place = isAdd ? key.add : key.remove;
  if (place == wrapper) return wrapper;
  const bool goes = wrapper == nullptr;
  WrapperPtr former = isAdd ? inFlight_.addIs(key, std::move(wrapper))
                            : inFlight_.removeIs(key, std::move(wrapper));
  noteInFlight();
  if (watched()) publishKeyed(isAdd ? kAddField : kRemoveField, key, place, !goes);
  return former;
}

void TableCore::sideIs(Side side, WrapperPtr wrapper) {
  if (wrapper == nullptr) {
    const Kiv::KivType owner = descriptor_.tableType;
    Kiv::throwMutatorArgNullPointerException(owner.module(), owner.index(),
                                             field(side == Side::add ? kAddField : kRemoveField));
  }
  InFlightKey& key = inFlight_.obtain(imageOf(wrapper->entryBytes()).words());
  const InFlight::Hold hold(inFlight_, key);
  sideIs(side, key, std::move(wrapper));
}

TableCore::WrapperPtr TableCore::sideDel(Side side, InFlightKey* key) {
  if (key == nullptr || (side == Side::add ? key->add : key->remove) == nullptr) return nullptr;
  const InFlight::Hold hold(inFlight_, *key);
  WrapperPtr former = sideIs(side, *key, nullptr);
  inFlight_.settle(*key);
  return former;
}

void TableCore::sideDelAll(Side side) {
  const auto view = side == Side::add ? InFlight::View::adds : InFlight::View::removes;
  for (InFlight::Walk walk(inFlight_, view); walk; ++walk) {
    sideDel(side, const_cast<InFlightKey*>(&*walk));
  }
}

void TableCore::transientAddEntryIs(WrapperPtr wrapper) { sideIs(Side::add, std::move(wrapper)); }

TableCore::WrapperPtr TableCore::transientAddEntryDel(const void* key) {
  return sideDel(Side::add, inFlight_.find(imageOf(key).words()));
}

void TableCore::transientAddEntryDelAll() { sideDelAll(Side::add); }

void TableCore::transientRemoveEntryIs(WrapperPtr wrapper) {
  sideIs(Side::remove, std::move(wrapper));
}

TableCore::WrapperPtr TableCore::transientRemoveEntryDel(const void* key) {
  return sideDel(Side::remove, inFlight_.find(imageOf(key).words()));
}

void TableCore::transientRemoveEntryDelAll() { sideDelAll(Side::remove); }

void TableCore::versionIs(InFlightKey& key, const EntryVersion& version) {
  if (key.counted && key.version == version) return;
  inFlight_.versionIs(key, version);
  if (watched()) publishKeyed(Field::kTransientVersionForKey, key, key.version, true);
}

void TableCore::versionDel(InFlightKey& key) {
  if (!key.counted) return;
  inFlight_.versionDel(key);
  if (watched()) publishKeyed(Field::kTransientVersionForKey, key, key.version, false);
}

void TableCore::transientVersionForKeyIs(const void* key, const EntryVersion& version) {
  versionIs(inFlight_.obtain(imageOf(key).words()), version);
}

EntryVersion TableCore::transientVersionForKeyDel(const void* key) {
  InFlightKey* const found = inFlight_.find(imageOf(key).words());
  if (found == nullptr || !found->counted) return {};
  const EntryVersion former = found->version;
  const InFlight::Hold hold(inFlight_, *found);
  versionDel(*found);
  inFlight_.settle(*found);
  return former;
}

void TableCore::transientVersionForKeyDelAll() {
  for (InFlight::Walk walk(inFlight_, InFlight::View::versions); walk; ++walk) {
    auto& key = const_cast<InFlightKey&>(*walk);
    versionDel(key);
    inFlight_.settle(key);
  }
}

void TableCore::entryHandleInLogEnq(const HandlePtr& handle) {
  if (!waitsForReports_) waitForReports();
  const std::uint32_t index = entryHandleInLog_.enq(handle);
  table_.publisher_.publishChange(field(Field::kEntryHandleInLog), &index);
}

TableCore::HandlePtr TableCore::entryHandleInLogDeq() {
  if (entryHandleInLog_.empty()) return nullptr;
  const std::uint32_t index = entryHandleInLog_.frontIndex();
  HandlePtr handle = entryHandleInLog_.deq();
  table_.publisher_.publishChange(field(Field::kEntryHandleInLog), &index);
  return handle;
}

void TableCore::entryHandleInLogDelAll() {
  if (!table_.publisher_.hasSubscriber()) return entryHandleInLog_.doClear(true);
  while (!entryHandleInLog_.empty()) entryHandleInLogDeq();
}

}  // namespace Asic
