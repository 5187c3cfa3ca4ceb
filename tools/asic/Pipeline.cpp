#include "asic/Pipeline.h"

#include "Drift/RecordLayout.h"

namespace SimAsic {
namespace {

using QuarnBastil::BigAdsFamily;
using QuarnBastil::BigBbFamily;
using QuarnBastil::SmallAdsFamily;
using QuarnBastil::TcamActionFamily;
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

template <class Key>
RuleTable::Key numberOf(const Key& key) {
  return RuleTable::Key{key.bank} << 16 | key.index;
}

bool isRules(const TableKind& kind) { return kind.id == TcamEntryFamily::kTableId; }
bool isPrefixes(const TableKind& kind) { return kind.id == BigBbFamily::kTableId; }
bool isActions(const TableKind& kind) { return kind.id == TcamActionFamily::kTableId; }
bool isAdjacencies(const TableKind& kind) { return kind.id == SmallAdsFamily::kTableId; }
bool isMembers(const TableKind& kind) { return kind.id == BigAdsFamily::kTableId; }

}  // namespace

std::uint64_t Pipeline::written(const TableKind& kind, Words words) {
  if (isPrefixes(kind)) prefixes_.write(Policy::prefixRowOf(entryOf<BigBbFamily>(words)));
  if (isAdjacencies(kind)) destinations_.adjacencyIs(entryOf<SmallAdsFamily>(words));
  if (isMembers(kind)) destinations_.memberIs(entryOf<BigAdsFamily>(words));
  if (isActions(kind)) {
    const auto action = entryOf<TcamActionFamily>(words);
    destinations_.actionIs(numberOf(action.key), action.destId);
  }
  if (!isRules(kind)) return 0;
  const auto entry = entryOf<TcamEntryFamily>(words);
  return rules_.write(numberOf(entry.key), Policy::ruleRowOf(entry));
}

void Pipeline::removed(const TableKind& kind, Words key) {
  if (isRules(kind)) {
    rules_.remove(numberOf(valueOf<TcamEntryFamily::Key>(key)));
  } else if (isActions(kind)) {
    destinations_.actionDel(numberOf(valueOf<TcamActionFamily::Key>(key)));
  } else if (isAdjacencies(kind)) {
    destinations_.adjacencyDel(valueOf<SmallAdsFamily::Key>(key));
  } else if (isMembers(kind)) {
    destinations_.memberDel(valueOf<BigAdsFamily::Key>(key));
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

Verdict Pipeline::decide(const Policy::Packet& packet) const {
  const Policy::PrefixRow* const source = prefixes_.lookup(packet.source);
  const Policy::PrefixRow* const destination = prefixes_.lookup(packet.destination);
  if (source == nullptr || destination == nullptr) return {};
  const auto match = rules_.match(packet, *source, *destination);
  if (match.row == nullptr) return {};
  const bool redirected = match.row->redirect != 0;
  return {match.row->decision, redirected,
          redirected ? destinations_.output(match.key, packet) : std::nullopt};
}

}  // namespace SimAsic
