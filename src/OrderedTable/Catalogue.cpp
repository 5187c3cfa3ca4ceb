#include "OrderedTable/Catalogue.h"

#include <map>

#include "Fenrik/Format.h"
#include "OrderedTable/LogStore.h"
#include "OrderedTable/MountDrift.h"
#include "OrderedTable/TableDescriptor.h"

namespace Asic {
namespace {

using Drift::FieldKind;
using Drift::RecordField;

// These values are stored in shared memory and must not change.
static_assert(int(FieldKind::number) == 0 && int(FieldKind::bytes) == 1 &&
              int(FieldKind::flag) == 2 && int(FieldKind::presence) == 3 &&
              int(FieldKind::group) == 5);
static_assert(int(Drift::TextForm::members) == 0 && int(Drift::TextForm::whole) == 1 &&
              int(Drift::TextForm::place) == 2 && int(Drift::TextForm::prefix) == 3);

using Row = std::pair<CataloguePart, std::uint16_t>;
using Rows = std::map<Row, CatalogueRecord>;

/// Builds the rows of a family.
class Description {
 public:
  explicit Description(const TableDescriptor& of) : tableId_(of.tableId) {
    const TableDescriptor::Records& records = of.records;
    fact(CatalogueFact::tableName, of.tableName);
    fact(CatalogueFact::tableNamespace, of.tableNamespace);
    fact(CatalogueFact::agentName, of.agentName);
    fact(CatalogueFact::groupName, of.groupName);
    fact(CatalogueFact::configRecord, of.collections.configType, records.configSize,
         records.logVersionOffset);
    fact(CatalogueFact::logRecord, of.collections.logType, records.logSize,
         LogRecordLayout::kLogEntry);
    shape(CatalogueFact::key, CataloguePart::key, records.key, 0);
    shape(CatalogueFact::entry, CataloguePart::entry, records.logEntry, 0);
    shape(CatalogueFact::resourceKeys, CataloguePart::resourceKeys, records.resourceKeys,
          records.resourceKeysOffset);
  }

  Rows rows;

 private:
  CatalogueRecord& add(CataloguePart part, std::uint16_t row, std::string_view name,
                       std::size_t size, std::size_t offset) {
    CatalogueRecord& record = rows[{part, row}];
    record.key.tableId = tableId_;
    record.key.part = part;
    record.key.row = row;
    record.nameIs(name);
    record.size = static_cast<std::uint32_t>(size);
    record.offset = static_cast<std::uint32_t>(offset);
    record.count = 1;
    return record;
  }
  CatalogueRecord& fact(CatalogueFact fact, std::string_view name, std::size_t size = 0,
                        std::size_t offset = 0) {
    return add(CataloguePart::facts, static_cast<std::uint16_t>(fact), name, size, offset);
  }
  void shape(CatalogueFact of, CataloguePart part, const FlatShape& shape, std::size_t offset) {
    fact(of, "", shape.size, offset).form = shape.form;
    std::uint16_t row = 0;
    fields(part, shape.fields.data(), shape.fields.size(), 0, row);
  }
  void fields(CataloguePart part, const RecordField* first, std::size_t count, std::uint16_t depth,
              std::uint16_t& row) {
    for (const RecordField* field = first; field != first + count; ++field) {
      if (field->kind == FieldKind::padding) continue;
      CatalogueRecord& record = add(part, row++, field->name, field->size, field->offset);
      record.count = static_cast<std::uint16_t>(field->count);
      record.depth = depth;
      record.kind = field->kind;
      record.form = field->form;
      fields(part, field->fields, field->fieldCount, depth + 1, row);
    }
  }

  const SwTableId tableId_;
};

Fenrik::Ptr<CatalogueDrift> mounted(const Stavro::EntityManager& entityManager) {
  return Fenrik::dynamicPtrCast<CatalogueDrift>(
      Impl::mountForWriting(entityManager, Fenrik::String(CatalogueDrift::kEntityName),
                            Fenrik::String(CatalogueDrift::kPath), [](KivDrift::MountInfo& info) {
                              info.collectionInfoIs({Fenrik::String(CatalogueDrift::kAttributeName),
                                                     CatalogueDrift::kCapacity, 0});
                            }));
}

/// The rows stored for a family. If the catalogue is damaged, all rows are dropped; each family
/// that is brought up afterwards writes its own again.
Rows known(CatalogueDrift& catalogue, SwTableId tableId) {
  Rows rows;
  try {
    CatalogueDrift::Map::Cursor cursor;
    const auto& map = *catalogue.map();
    for (bool more = map.driftMapIterBegin(cursor); more;
         more = map.driftMapIterNext(CatalogueKey(cursor.record.key), cursor)) {
      const CatalogueKey& key = cursor.record.key;
      if (key.tableId == tableId) rows[{key.part, key.row}] = cursor.record;
    }
  } catch (const Fenrik::CorruptionDetectedException&) {
    catalogue.recordDelAll();
    return {};
  }
  return rows;
}

}  // namespace

void CatalogueRecord::nameIs(std::string_view text) {
  if (text.size() >= name.size()) {
    throw Fenrik::Exception(Fenrik::formatString(
        "the catalogue has no room for a name of {} bytes: {}", text.size(), text));
  }
  name.fill(0);
  text.copy(name.data(), text.size());
}

void describe(const Stavro::EntityManager& entityManager, const TableDescriptor& family) {
  const auto catalogue = mounted(entityManager);
  const Rows wanted = Description(family).rows;
  const Rows former = known(*catalogue, family.tableId);
  // A wiped catalogue needs no report: each family that is brought up writes its rows again.
  catalogue->collectionControl()->clearWiped();
  if (former == wanted) return;
  for (const auto& [row, record] : former) {
    if (!wanted.contains(row)) catalogue->recordDel(record.key);
  }
  for (const auto& [row, record] : wanted) catalogue->recordIs(record);
  catalogue->ring();
}

}  // namespace Asic
