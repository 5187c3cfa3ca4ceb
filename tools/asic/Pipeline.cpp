#include "asic/Pipeline.h"

#include "Drift/RecordLayout.h"

namespace SimAsic {
namespace {

using QuarnBastil::BigBbFamily;
using QuarnBastil::TcamEntryFamily;
using Tables::TableKind;
using Tables::Words;

template <class Value>
Value valueOf(Words words) {
  Value value;
  Drift::FlatLayout<Value>::fromWords(words.data(), value);
  return value;
}

template <class Family>
typename Family::LogEntry entryOf(Words words) {
  return valueOf<typename Family::LogEntry>(words);
}

RuleTable::Key numberOf(const QuarnBastil::TcamEntryEntryKey& key) {
  return RuleTable::Key{key.bank} << 16 | key.index;
}

bool isRules(const TableKind& kind) { return kind.id == TcamEntryFamily::kTableId; }
bool isPrefixes(const TableKind& kind) { return kind.id == BigBbFamily::kTableId; }

}  // namespace

std::uint64_t Pipeline::written(const TableKind& kind, Words words) {
  if (isPrefixes(kind)) prefixes_.write(Policy::prefixRowOf(entryOf<BigBbFamily>(words)));
  if (!isRules(kind)) return 0;
  const auto entry = entryOf<TcamEntryFamily>(words);
  return rules_.write(numberOf(entry.key), Policy::ruleRowOf(entry));
}

void Pipeline::removed(const TableKind& kind, Words key) {
  if (isRules(kind)) {
    rules_.remove(numberOf(valueOf<QuarnBastil::TcamEntryEntryKey>(key)));
  } else if (isPrefixes(kind)) {
    const auto prefix = valueOf<BigBbFamily::Key>(key);
    prefixes_.remove({prefix.prefix, prefix.length});
  }
}

std::uint64_t Pipeline::orderOf(const TableKind& kind, Words entry) {
  if (isRules(kind)) return Policy::ruleRowOf(entryOf<TcamEntryFamily>(entry)).priority;
  if (isPrefixes(kind)) return entryOf<BigBbFamily>(entry).key.length;
  return 0;
}

Policy::Decision Pipeline::decide(const Policy::Packet& packet) const {
  const Policy::PrefixRow* const source = prefixes_.lookup(packet.source);
  const Policy::PrefixRow* const destination = prefixes_.lookup(packet.destination);
  if (source == nullptr || destination == nullptr) return 0;
  return rules_.decide(packet, *source, *destination);
}

}  // namespace SimAsic
