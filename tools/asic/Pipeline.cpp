#include "asic/Pipeline.h"

#include "Drift/RecordLayout.h"

namespace SimAsic {
namespace {

using QuarnBastil::BigBbFamily;
using QuarnBastil::TcamEntryFamily;
using Tables::TableKind;
using Tables::Words;

template <class Family>
typename Family::LogEntry entryOf(Words words) {
  typename Family::LogEntry entry;
  Drift::FlatLayout<typename Family::LogEntry>::fromWords(words.data(), entry);
  return entry;
}

RuleTable::Key numberOf(const QuarnBastil::TcamEntryEntryKey& key) {
  return RuleTable::Key{key.bank} << 16 | key.index;
}

bool isRules(const TableKind& kind) { return kind.id == TcamEntryFamily::kTableId; }
bool isPrefixes(const TableKind& kind) { return kind.id == BigBbFamily::kTableId; }

}  // namespace

/// How many of the row's labels nobody has any more, though rules point at them.
unsigned Pipeline::left(const Policy::PrefixRow& gone) const {
  unsigned count = 0;
  for (unsigned numbering = 0; numbering < Policy::kNumberings; ++numbering) {
    const std::uint32_t label = gone.labels[numbering].first;
    count += !prefixes_.hasLabel(numbering, label) && rules_.pointsAt(numbering, label) ? 1 : 0;
  }
  return count;
}

Pipeline::Cost Pipeline::written(const TableKind& kind, Words words) {
  Cost cost;
  if (isRules(kind)) {
    const auto entry = entryOf<TcamEntryFamily>(words);
    const Policy::RuleRow row = Policy::ruleRowOf(entry);
    cost.moves = rules_.write(numberOf(entry.key), row);
    for (const auto& labels : {row.source, row.destination}) {
      cost.violations += prefixes_.hasLabel(row.numbering, labels.first) ? 0 : 1;
    }
  } else if (isPrefixes(kind)) {
    const Policy::PrefixRow row = Policy::prefixRowOf(entryOf<BigBbFamily>(words));
    const Policy::PrefixRow* const present = prefixes_.find(row.prefix);
    const Policy::PrefixRow former = present != nullptr ? *present : row;
    prefixes_.write(row);
    cost.violations = left(former);
  }
  return cost;
}

Pipeline::Cost Pipeline::removed(const TableKind& kind, Words words) {
  Cost cost;
  if (isRules(kind)) {
    QuarnBastil::TcamEntryEntryKey key;
    Drift::FlatLayout<QuarnBastil::TcamEntryEntryKey>::fromWords(words.data(), key);
    rules_.remove(numberOf(key));
  } else if (isPrefixes(kind)) {
    BigBbFamily::Key key;
    Drift::FlatLayout<BigBbFamily::Key>::fromWords(words.data(), key);
    const Policy::PrefixRow* const present = prefixes_.find({key.prefix, key.length});
    if (present == nullptr) return cost;
    const Policy::PrefixRow former = *present;
    prefixes_.remove(former.prefix);
    cost.violations = left(former);
  }
  return cost;
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
