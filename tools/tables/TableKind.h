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

/// What a program outside of the agent must know of each table family, as plain facts, so that its
/// code is the same for all of them.
namespace Tables {

using Drift::Format::Word;
/// The bytes of an entry or a key in a collection, padded with zeros to whole words.
using Words = std::span<const Word>;

/// What a collection must be for its records to be read.
struct Shape {
  Drift::Format::Layout layout;
  std::string_view typeName;
  std::uint32_t keySize;
  std::uint32_t recordSize;
};

/// The fields of a described type, for people.
struct Fields {
  const Drift::RecordField* fields;
  std::size_t count;
  Drift::TextForm form;

  std::string text(const void* value) const;
};

/// A row of another table to which an entry points: the table's name and the words of the key.
struct Reference {
  std::string_view table;
  std::vector<Word> key;
};

/// What the rest of a family's facts follow from. The texts and the fields outlive the process's
/// use of them.
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
  std::string group;
  /// Entity paths. The configuration's is completed by the number of the unit.
  std::string logPath;
  std::string neededPath;
  std::string configPath;
  Shape log;
  Shape config;
  std::uint32_t keySize;
  std::uint32_t entrySize;
  /// In the configuration record, after the entry; the mark of an entry in deletion follows.
  std::size_t versionOffset;
  Fields key;
  Fields entry;
  /// The rows to which an entry points are in tables of a lower tier.
  unsigned tier;
  /// The rows to which an entry points, of the same unit; null for a table of the lowest tier.
  std::vector<Reference> (*references)(Words entry);

  std::size_t entryWords() const { return Drift::Format::paddedSize(entrySize) / sizeof(Word); }
  std::size_t keyWords() const { return Drift::Format::paddedSize(keySize) / sizeof(Word); }
};

/// All families that this process knows: those of the library, the lowest tier first and by their
/// ids within a tier, then what `Catalogue::learn` has learnt. None ever goes.
const std::deque<TableKind>& tableKinds();
/// The family of that name or id; null if there is none.
const TableKind* kindOf(std::string_view name);
const TableKind* kindOf(Asic::SwTableId id);

/// Enters a family that `kindOf` does not know.
void kindIs(const KindFacts& facts);

/// The words of the key with which an entry begins. Bytes of the entry that share the key's last
/// word are 0.
std::vector<Word> keyOf(const TableKind& kind, Words entry);

/// A number for a row. The sum over a table's rows, modulo 2^64, is the table's digest.
std::uint64_t rowDigest(Asic::SwTableId table, Asic::UnitId unit, Words entry) noexcept;

/// A configuration record, read.
struct ConfigRow {
  std::vector<Word> entry;
  std::uint64_t version = 0;
  bool isDeleted = false;
};
ConfigRow configRowOf(const TableKind& kind, Words record);

/// A log record, read.
struct LogRow {
  std::uint64_t version = 0;
  bool entryDelete = false;
  bool tableDelete = false;
  Asic::UnitId unit;
  /// Undefined in a table delete.
  std::vector<Word> entry;
};
/// Reuses the memory of `row`.
void logRowIs(LogRow& row, const TableKind& kind, Words record);

}  // namespace Tables
