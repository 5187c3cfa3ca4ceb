#include "tables/TableKind.h"

#include <algorithm>

#include "Drift/RecordLayout.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/LogStore.h"
#include "OrderedTable/TableDescriptor.h"
#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamAction.h"
#include "QuarnBastil/TcamEntry.h"
#include "policy/Destination.h"
#include "policy/Rows.h"
#include "tables/Text.h"

namespace Tables {
namespace {

using Asic::LogRecordLayout;
using Drift::Format::Layout;

constexpr std::uint16_t kEtherTypeIpv6 = 0x86dd;

template <class Family>
void addReference(std::vector<Reference>& to, const typename Family::Key& key) {
  using Layout = Drift::FlatLayout<typename Family::Key>;
  std::vector<Word> words(Layout::kWords);
  Layout::toWords(key, words.data());
  to.push_back({Family::kTableName, std::move(words)});
}

void addPrefix(std::vector<Reference>& to, const QuarnBastil::OptionalPrefix& prefix) {
  if (!prefix.present || prefix.length > 32) return;
  std::uint32_t address = 0;
  for (unsigned i = 0; i < 4; ++i) address = address << 8 | prefix.address[i];
  addReference<QuarnBastil::BigBbFamily>(to, {address, prefix.length});
}

/// References of a classification entry. It matches the result of the prefix search: its IPv4
/// prefixes are rows of the prefix table. If it redirects, its action has the same key.
std::vector<Reference> classified(Words words) {
  QuarnBastil::TcamEntryLogEntry entry;
  Drift::FlatLayout<QuarnBastil::TcamEntryLogEntry>::fromWords(words.data(), entry);
  std::vector<Reference> references;
  if (Policy::redirectOf(entry) != 0) {
    addReference<QuarnBastil::TcamActionFamily>(references, {entry.key.bank, entry.key.index});
  }
  if (entry.etherType == kEtherTypeIpv6) return references;
  addPrefix(references, entry.sourcePrefix);
  addPrefix(references, entry.destinationPrefix);
  return references;
}

/// References of an action: the rows of its destination.
std::vector<Reference> redirected(Words words) {
  QuarnBastil::TcamActionLogEntry entry;
  Drift::FlatLayout<QuarnBastil::TcamActionLogEntry>::fromWords(words.data(), entry);
  const Policy::Destination destination(entry.destId);
  std::vector<Reference> references;
  for (std::uint32_t i = 0; i < destination.rows(); ++i) {
    if (destination.isGroup()) {
      addReference<QuarnBastil::BigAdsFamily>(references, destination.memberKey(i));
    } else {
      addReference<QuarnBastil::SmallAdsFamily>(references, destination.adjacencyKey());
    }
  }
  return references;
}

/// Facts about a family that its descriptor lacks: the rows that its entries refer to.
struct Tier {
  Asic::SwTableId table;
  unsigned tier;
  std::vector<Reference> (*references)(Words entry);
};
/// Families not listed here are in the lowest tier.
constexpr Tier kTiers[] = {{QuarnBastil::TcamActionFamily::kTableId, 1, redirected},
                           {QuarnBastil::TcamEntryFamily::kTableId, kHighestTier, classified}};

Fields fieldsOf(const Asic::FlatShape& shape) {
  return {shape.fields.data(), shape.fields.size(), shape.form};
}

KindFacts factsOf(const Asic::TableDescriptor& of) {
  const auto& records = of.records;
  const auto sizeOf = [](std::size_t size) { return static_cast<std::uint32_t>(size); };
  return {.id = of.tableId,
          .agentName = of.agentName,
          .groupName = of.groupName,
          .tableNamespace = of.tableNamespace,
          .tableName = of.tableName,
          .configType = of.collections.configType,
          .logType = of.collections.logType,
          .configSize = sizeOf(records.configSize),
          .logSize = sizeOf(records.logSize),
          .keySize = sizeOf(records.key.size),
          .entrySize = sizeOf(records.logEntry.size),
          .versionOffset = records.logVersionOffset,
          .key = fieldsOf(records.key),
          .entry = fieldsOf(records.logEntry)};
}

TableKind kindFrom(const KindFacts& of) {
  using Asic::Constants;
  using Fenrik::String;
  const String group = Constants::canonicalizeGroupName(String(of.agentName), String(of.groupName));
  const String space(of.tableNamespace);
  const String table(of.tableName);
  const String log = Constants::canonicalGroupTableEntryLogDriftPath(group, space, table, of.id);
  const auto* const tier = std::ranges::find(kTiers, of.id, &Tier::table);
  const bool isLowest = tier == std::end(kTiers);
  return {
      .id = of.id,
      .name = of.tableName,
      .group = group.str(),
      .logPath = log.str(),
      .neededPath = Constants::neededPathOfEntryLogPath(log).str(),
      .configPath = Constants::canonicalGroupTableConfigDriftPathBase(group, space, table).str(),
      .log = {Layout::dense, of.logType, sizeof(Word), of.logSize},
      .config = {Layout::hashed, of.configType, of.keySize, of.configSize},
      .keySize = of.keySize,
      .entrySize = of.entrySize,
      .versionOffset = of.versionOffset,
      .key = of.key,
      .entry = of.entry,
      .tier = isLowest ? 0 : tier->tier,
      .references = isLowest ? nullptr : tier->references};
}

std::deque<TableKind>& kinds() {
  static std::deque<TableKind> kinds = [] {
    std::deque<TableKind> made;
    for (const auto* of : Asic::TableRegistration::all()) made.push_back(kindFrom(factsOf(*of)));
    std::ranges::stable_sort(made, {}, &TableKind::tier);
    return made;
  }();
  return kinds;
}

/// One round of splitmix64: every bit of the word affects every bit of the result.
std::uint64_t mixed(std::uint64_t word) noexcept {
  word = (word ^ (word >> 30)) * 0xbf58476d1ce4e5b9;
  word = (word ^ (word >> 27)) * 0x94d049bb133111eb;
  return word ^ (word >> 31);
}

template <class T>
T valueAt(Words words, std::size_t offset) {
  T value;
  std::memcpy(&value, reinterpret_cast<const std::byte*>(words.data()) + offset, sizeof value);
  return value;
}

void entryIs(std::vector<Word>& entry, const TableKind& kind, Words record, std::size_t offset) {
  entry.assign(kind.entryWords(), 0);
  std::memcpy(entry.data(), reinterpret_cast<const std::byte*>(record.data()) + offset,
              kind.entrySize);
}

}  // namespace

std::string Fields::text(const void* value) const { return textOf(fields, count, value, form); }

const std::deque<TableKind>& tableKinds() { return kinds(); }

void kindIs(const KindFacts& facts) { kinds().push_back(kindFrom(facts)); }

const TableKind* kindOf(std::string_view name) {
  const auto found = std::ranges::find(tableKinds(), name, &TableKind::name);
  return found == tableKinds().end() ? nullptr : &*found;
}

const TableKind* kindOf(Asic::SwTableId id) {
  const auto found = std::ranges::find(tableKinds(), id, &TableKind::id);
  return found == tableKinds().end() ? nullptr : &*found;
}

std::vector<Word> keyOf(const TableKind& kind, Words entry) {
  std::vector<Word> key(entry.begin(), entry.begin() + static_cast<long>(kind.keyWords()));
  key.back() &= ~Word{0} >> (kind.keyWords() * sizeof(Word) - kind.keySize) * 8;
  return key;
}

std::uint64_t rowDigest(Asic::SwTableId table, Asic::UnitId unit, Words entry) noexcept {
  std::uint64_t digest = mixed(std::uint64_t{table.value()} << 16 | unit.value());
  for (const Word word : entry) digest = mixed(digest + 0x9e3779b97f4a7c15 + word) ^ word;
  return mixed(digest);
}

ConfigRow configRowOf(const TableKind& kind, Words record) {
  ConfigRow row;
  entryIs(row.entry, kind, record, 0);
  row.version = valueAt<std::uint64_t>(record, kind.versionOffset);
  row.isDeleted = valueAt<std::uint8_t>(record, kind.versionOffset + sizeof(Word)) != 0;
  return row;
}

void logRowIs(LogRow& row, const TableKind& kind, Words record) {
  const auto flags = valueAt<std::uint8_t>(record, LogRecordLayout::kFlags);
  row.version = record[0];
  row.entryDelete = (flags & Asic::EntryFlags::kEntryDelete) != 0;
  row.tableDelete = (flags & Asic::EntryFlags::kTableDelete) != 0;
  row.unit = Asic::UnitId(valueAt<std::uint16_t>(record, LogRecordLayout::kUnit));
  entryIs(row.entry, kind, record, LogRecordLayout::kLogEntry);
}

}  // namespace Tables
