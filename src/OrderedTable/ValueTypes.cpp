#include "OrderedTable/ValueTypes.h"

#include <fmt/format.h>

#include "Drift/RecordLayout.h"
#include "OrderedTable/Catalogue.h"
#include "OrderedTable/NeededEntryDrift.h"
#include "OrderedTable/TableVersionDrift.h"
#include "Stavro/ValueEntity.h"

// Layout of the value types within records, which other processes read.
namespace Asic {

template <class T, std::size_t kSize, std::size_t kAlignment>
constexpr bool kStandsInRecords = Drift::Flat<T>&& Drift::Plain<T> && sizeof(T) == kSize &&
                                  alignof(T) == kAlignment;

static_assert(kStandsInRecords<UnitId, 2, 2>);
static_assert(kStandsInRecords<LogVersion, 8, 4>);
static_assert(kStandsInRecords<EntryFlags, 1, 1>);
static_assert(kStandsInRecords<SwTableId, 4, 4>);
static_assert(kStandsInRecords<TableVersion, 12, 4>);
static_assert(kStandsInRecords<GenId, 8, 4>);
static_assert(!MajorVersion().valid() && MajorVersion(0).valid());
static_assert(!EntryVersion().valid() && EntryVersion(MajorVersion(0), 0).valid());

namespace {

const Stavro::ValueRegistration<GenId> kGenIdRegistration;
// Registered when the library is loaded, so that a mount finds them by name.
const KivSharedMem::EntityRegistrations<CatalogueDrift, NeededEntryDrift, TableVersionDrift>
    kEntities;

}  // namespace

void SwTableId::textAppend(std::string& text) const {
  text += fmt::format("{:02x}:{:02x}:{:04x}", agentId(), groupId(), tblId());
}
void TableVersion::textAppend(std::string& text) const {
  text += fmt::format("{}@{}", tableId_, logVersion_);
}
void EntryVersion::textAppend(std::string& text) const {
  text += fmt::format("{}.{}", major_, minor_);
}
void GenId::textAppend(std::string& text) const {
  text += fmt::format("{}.{}", majorId_, minorId_);
}

}  // namespace Asic
