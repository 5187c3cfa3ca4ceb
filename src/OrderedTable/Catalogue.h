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

/// What a row of the catalogue tells of its family.
enum class CataloguePart : std::uint16_t {
  facts = 1,  ///< one row each, see `CatalogueFact`
  key,        ///< a field of the key
  entry,      ///< a field of what goes to the log
  resourceKeys,
};

/// The rows of `CataloguePart::facts`.
enum class CatalogueFact : std::uint16_t {
  tableName = 0,
  tableNamespace,
  agentName,
  groupName,
  configRecord,  ///< name of the type; its size, and where the log version stands
  logRecord,     ///< name of the type; its size, and where the entry stands
  key,           ///< its size and its form
  entry,         ///< its size and its form
  resourceKeys,  ///< their size, and where they stand in the configuration record
};

struct QUARNBASTIL_EXPORT CatalogueKey final : Drift::FlatValue<CatalogueKey> {
  SwTableId tableId;
  CataloguePart part{};
  /// A `CatalogueFact`, or the number of the field, those of groups counted as well.
  std::uint16_t row = 0;

  static constexpr auto fields() {
    using Self = CatalogueKey;
    return std::array{DRIFT_FIELD_AT(Self, tableId, 0), DRIFT_FIELD_AT(Self, part, 4),
                      DRIFT_FIELD_AT(Self, row, 6)};
  }
};

/// A fact, or a field. The fields of a group follow its own row, one level deeper.
struct QUARNBASTIL_EXPORT CatalogueRecord final : Drift::FlatValue<CatalogueRecord> {
  using Key = CatalogueKey;
  static constexpr std::size_t kNameSize = 128;

  Key key;
  /// Bytes from the beginning of the key, the entry or the group, or of the record.
  std::uint32_t offset = 0;
  /// Bytes of one element.
  std::uint32_t size = 0;
  /// Elements, one behind the other.
  std::uint16_t count = 0;
  /// Groups around the field.
  std::uint16_t depth = 0;
  Drift::FieldKind kind{};
  /// Of a group, a key or an entry.
  Drift::TextForm form{};
  Drift::Padding<2> spare;
  /// Ends with a zero.
  std::array<char, kNameSize> name{};

  std::string_view nameText() const noexcept { return name.data(); }
  /// Throws `Fenrik::Exception` if the name has no room.
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

/// The families whose tables an agent has, described field by field: what another process must know
/// to find their collections and to read the records. It may be older or newer than the agent, and
/// know none of the agent's own families.
///
/// Process and thread: written by the agent, on the table thread, before it makes a family's log;
/// rung when a description has changed. Read by hardware writer and inspection.
class QUARNBASTIL_EXPORT CatalogueDrift final
    : public KivSharedMem::HashedCollection<CatalogueDrift, CatalogueRecord> {
 public:
  static constexpr std::string_view kEntityName = "Asic::CatalogueDrift";
  static constexpr std::string_view kAttributeName = "catalogue";
  static constexpr std::string_view kPath = "hardware/catalogue";
  /// Some 15 rows a family, and one a field: a hundred families.
  static constexpr Drift::Word kCapacity = 8192;

  using HashedCollection::HashedCollection;

  void recordIs(const CatalogueRecord& record) { HashedCollection::recordIs(record); }
  void recordDel(const CatalogueKey& key) { HashedCollection::recordDel(key); }
  void recordDelAll() { HashedCollection::recordDelAll(); }
};

/// Describes a family in the catalogue of the agent's directory, which is made if need be. Rows
/// that say so already stay as they are. Throws `Drift::MountException`, `Drift::NoSpaceException`.
void describe(const Stavro::EntityManager& entityManager, const TableDescriptor& family);

}  // namespace Asic
