#pragma once

#include <string_view>

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "KivSharedMem/Collection.h"
#include "OrderedTable/SwTableId.h"

namespace Stavro {
class EntityManager;
}

namespace Asic {

struct TableDescriptor;

/// Kind of a catalogue row.
enum class CataloguePart : std::uint16_t {
  facts = 1,     ///< one row per `CatalogueFact`
  key,           ///< a field of the key
  entry,         ///< a field of the log entry
  resourceKeys,  // a field of the resource keys
};

/// Row numbers within `CataloguePart::facts`, and what each record holds.
enum class CatalogueFact : std::uint16_t {
  tableName = 0,
  tableNamespace,
  agentName,
  groupName,
  configRecord,  ///< type name, record size, offset of the log version
  logRecord,     ///< type name, record size, offset of the entry
  key,           ///< size and text form
  entry,         ///< size and text form
  resourceKeys,  ///< size, and offset in the configuration record
};

/// One row of one table's description.
struct QUARNBASTIL_EXPORT CatalogueKey final : Drift::FlatValue<CatalogueKey> {
  /// The table that the row describes.
  SwTableId tableId;
  /// The kind of row.
  CataloguePart part{};
  /// A `CatalogueFact`, or the number of the field. Groups and the fields within them count, too.
  std::uint16_t row = 0;

  static constexpr auto fields() {
    using Self = CatalogueKey;
    return std::array{DRIFT_FIELD_AT(Self, tableId, 0), DRIFT_FIELD_AT(Self, part, 4),
                      DRIFT_FIELD_AT(Self, row, 6)};
  }
};

/// A fact or a field. A group's fields follow the group's own row, at `depth` one greater.
struct QUARNBASTIL_EXPORT CatalogueRecord final : Drift::FlatValue<CatalogueRecord> {
  using Key = CatalogueKey;
  static constexpr std::size_t kNameSize = 128;

  /// Identifies the row.
  Key key;
  /// Bytes from the start of the key, entry or group; for a fact, from the start of the record.
  std::uint32_t offset = 0;
  /// Bytes per element.
  std::uint32_t size = 0;
  /// Number of consecutive elements.
  std::uint16_t count = 0;
  /// Number of groups that enclose the field.
  std::uint16_t depth = 0;
  /// Type of the field's elements.
  Drift::FieldKind kind{};
  /// Text form of a group, key or entry.
  Drift::TextForm form{};
  Drift::Padding<2> spare;
  /// Name of the fact or field, zero-terminated.
  std::array<char, kNameSize> name{};

  std::string_view nameText() const noexcept { return name.data(); }
  /// Throws `Fenrik::Exception` if the name does not fit.
  void nameIs(std::string_view text);

  static constexpr auto fields() {
    using Self = CatalogueRecord;
    return std::array{DRIFT_FIELD_AT(Self, key, 0),    DRIFT_FIELD_AT(Self, offset, 8),
                      DRIFT_FIELD_AT(Self, size, 12),  DRIFT_FIELD_AT(Self, count, 16),
                      DRIFT_FIELD_AT(Self, depth, 18), DRIFT_FIELD_AT(Self, kind, 20),
                      DRIFT_FIELD_AT(Self, form, 21),  DRIFT_FIELD_AT(Self, spare, 22),
                      DRIFT_FIELD_AT(Self, name, 24)};
  }
};
static_assert(sizeof(CatalogueRecord) == 152);

/// Describes the agent's table families field by field, so that another process can find their
/// collections and decode their records. The reader may be older or newer than the agent and need
/// not contain any of its families.
///
/// Process and thread: written by the agent on the table thread, before it creates a family's log;
/// the doorbell rings when a description has changed. Read by the hardware writer and the
/// inspection program.
class QUARNBASTIL_EXPORT CatalogueDrift final
    : public KivSharedMem::HashedCollection<CatalogueDrift, CatalogueRecord> {
 public:
  static constexpr std::string_view kEntityName = "Asic::CatalogueDrift";
  static constexpr std::string_view kAttributeName = "catalogue";
  static constexpr std::string_view kPath = "hardware/catalogue";
  /// Room for a hundred families: about 15 rows of facts each, and one row per field.
  static constexpr Drift::Word kCapacity = 8192;

  using HashedCollection::HashedCollection;

  void recordIs(const CatalogueRecord& record) { HashedCollection::recordIs(record); }
  void recordDel(const CatalogueKey& key) { HashedCollection::recordDel(key); }
  void recordDelAll() { HashedCollection::recordDelAll(); }
};

/// Describes a family in the catalogue of the agent's directory, creating the catalogue if it is
/// absent. Rows that are already correct are not rewritten. Throws `Drift::MountException`,
/// `Drift::NoSpaceException`.
void describe(const Stavro::EntityManager& entityManager, const TableDescriptor& family);

}  // namespace Asic
