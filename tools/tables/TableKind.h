#pragma once

#include <cstring>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Drift/Format.h"
#include "Drift/RecordField.h"
#include "OrderedTable/SwTableId.h"
#include "OrderedTable/UnitId.h"

/// Facts about each table family for programs other than the agent, so that the same code handles
/// all families.
namespace Tables {

using Drift::Format::Word;
/// The bytes of an entry or key in a collection, zero-padded to whole words.
using Words = std::span<const Word>;

/// Required properties of a collection for its records to be readable.
struct Shape {
  Drift::Format::Layout layout;  ///< dense or hashed
  std::string_view typeName;     ///< type of the records
  std::uint32_t keySize;         ///< bytes
  std::uint32_t recordSize;      ///< bytes
};

/// The fields of a type with a field list, for printing.
struct Fields {
  const Drift::RecordField* fields;  ///< rows of the field list
  std::size_t count;                 ///< number of rows
  Drift::TextForm form;              ///< text form of the type

  /// The value as text.
  std::string text(const void* value) const;
};

/// A row of another table that an entry refers to: table name and words of the key.
struct Reference {
  std::string_view table;  ///< name of the table
  std::vector<Word> key;   ///< key of the row
};

/// The tier of tables whose rows no other rows refer to.
inline constexpr unsigned kHighestTier = 2;

/// The facts from which the others are derived. Texts and fields must remain valid for the life of
/// the process.
struct KindFacts {
  Asic::SwTableId id;
  std::string_view agentName, groupName, tableNamespace, tableName;
  std::string_view configType, logType;
  std::uint32_t configSize, logSize;
  std::uint32_t keySize, entrySize;
  std::size_t versionOffset;
  Fields key, entry;
};

/// One table family. Sizes and offsets are in bytes.
struct TableKind {
  Asic::SwTableId id;
  std::string_view name;
  /// Canonical name of the group.
  std::string group;
  /// Entity paths. Append the number of the unit to `configPath`.
  std::string logPath;
  std::string neededPath;
  std::string configPath;
  /// Shapes of log and configuration.
  Shape log;
  Shape config;
  std::uint32_t keySize;
  std::uint32_t entrySize;
  /// Offset in the configuration record of the version, which follows the entry and is followed by
  /// the deletion mark.
  std::size_t versionOffset;
  /// Fields of key and entry.
  Fields key;
  Fields entry;
  /// Entries refer only to rows of tables in lower tiers. 0 to `kHighestTier`.
  unsigned tier;
  /// The rows that an entry refers to, in the same unit; null in the lowest tier.
  std::vector<Reference> (*references)(Words entry);

  std::size_t entryWords() const { return Drift::Format::paddedSize(entrySize) / sizeof(Word); }
  std::size_t keyWords() const { return Drift::Format::paddedSize(keySize) / sizeof(Word); }
};

/// All families known to this process: the library's, ordered by tier, then id; then those added by
/// `Catalogue::learn`. Families are never removed.
const std::deque<TableKind>& tableKinds();
/// The family with this name or id, or null.
const TableKind* kindOf(std::string_view name);
const TableKind* kindOf(Asic::SwTableId id);

/// Adds a family that `kindOf` does not know.
void kindIs(const KindFacts& facts);

/// The words of the key at the start of an entry. Bytes of the entry in the key's last word are
/// cleared.
std::vector<Word> keyOf(const TableKind& kind, Words entry);

/// Hash of a row. A table's digest is the sum over its rows modulo 2^64.
std::uint64_t rowDigest(Asic::SwTableId table, Asic::UnitId unit, Words entry) noexcept;

/// A decoded configuration record.
struct ConfigRow {
  std::vector<Word> entry;
  std::uint64_t version = 0;
  bool isDeleted = false;
};
ConfigRow configRowOf(const TableKind& kind, Words record);

/// A decoded log record.
struct LogRow {
  std::uint64_t version = 0;
  bool entryDelete = false;
  bool tableDelete = false;
  Asic::UnitId unit;
  /// Undefined for a table delete.
  std::vector<Word> entry;
};
/// Decodes a log record, reusing the memory of `row`.
void logRowIs(LogRow& row, const TableKind& kind, Words record);

}  // namespace Tables
