#include "policy/Rows.h"

namespace Policy {
namespace {

using QuarnBastil::BigBbFamily;
using QuarnBastil::OptionalPrefix;
using QuarnBastil::TcamActionEntry;
using QuarnBastil::TcamActionEntryKey;
using QuarnBastil::TcamEntryEntry;
using QuarnBastil::TcamEntryEntryKey;
using QuarnBastil::TcamEntryLogEntry;

// Use of `userWords` in a rule row.
enum Word { kPriority, kNumbering, kSourceFirst, kSourceLast, kDestinationFirst, kDestinationLast };

OptionalPrefix shown(const Prefix& prefix) {
  std::array<std::uint8_t, 16> address{};
  for (unsigned i = 0; i < 4; ++i) {
    address[i] = static_cast<std::uint8_t>(prefix.address >> (24 - 8 * i));
  }
  return OptionalPrefix(address, 0, prefix.length);
}

Prefix prefixOf(const OptionalPrefix& shown) {
  Prefix prefix;
  if (!shown.present) return prefix;
  for (unsigned i = 0; i < 4; ++i) prefix.address = prefix.address << 8 | shown.address[i];
  prefix.length = shown.length;
  return prefix;
}

void putPorts(TcamEntryLogEntry& entry, unsigned side, const PortRange& ports) {
  entry.port[side] = ports.first;
  entry.portRange[side].mode = 1;
  entry.portRange[side].value = ports.last;
}

PortRange portsOf(const TcamEntryLogEntry& entry, unsigned side) {
  return {entry.port[side], static_cast<std::uint16_t>(entry.portRange[side].value)};
}

}  // namespace

BigBbFamily::Entry entryOf(const PrefixRow& row) {
  BigBbFamily::Entry entry(BigBbFamily::Key(row.prefix.address, row.prefix.length));
  auto& words = entry.block.nextHop;
  words[0] = row.nextHop;
  for (unsigned i = 0; i < kNumberings; ++i) {
    words[1 + 2 * i] = row.labels[i].first;
    words[2 + 2 * i] = row.labels[i].last;
  }
  return entry;
}

PrefixRow prefixRowOf(const BigBbFamily::LogEntry& entry) {
  PrefixRow row;
  row.prefix = {entry.key.prefix, entry.key.length};
  const auto& words = entry.block.nextHop;
  row.nextHop = words[0];
  for (unsigned i = 0; i < kNumberings; ++i) {
    row.labels[i] = {words[1 + 2 * i], words[2 + 2 * i]};
  }
  return row;
}

TcamEntryEntry entryOf(const RuleRow& row, const Rule& rule, TcamEntryEntryKey key) {
  TcamEntryEntry entry(key);
  entry.sourcePrefix = shown(rule.source);
  entry.destinationPrefix = shown(rule.destination);
  entry.userWords[kPriority] = row.priority;
  entry.userWords[kNumbering] = row.numbering;
  entry.userWords[kSourceFirst] = row.source.first;
  entry.userWords[kSourceLast] = row.source.last;
  entry.userWords[kDestinationFirst] = row.destination.first;
  entry.userWords[kDestinationLast] = row.destination.last;
  putPorts(entry, 0, row.sourcePorts);
  putPorts(entry, 1, row.destinationPorts);
  entry.protocol.value = row.protocol.value;
  entry.protocol.mask = row.protocol.mask;
  entry.tunnel[0].value = row.flags.value;
  entry.tunnel[0].mask = row.flags.mask;
  entry.actionWords[0] = static_cast<std::uint32_t>(row.decision);
  entry.actionWords[1] = static_cast<std::uint32_t>(row.decision >> 32);
  entry.actionWords[2] = static_cast<std::uint32_t>(row.redirect);
  entry.actionWords[3] = static_cast<std::uint32_t>(row.redirect >> 32);
  return entry;
}

std::uint64_t redirectOf(const TcamEntryLogEntry& entry) {
  return std::uint64_t{entry.actionWords[3]} << 32 | entry.actionWords[2];
}

RuleRow ruleRowOf(const TcamEntryLogEntry& entry) {
  RuleRow row;
  row.priority = entry.userWords[kPriority];
  row.numbering = entry.userWords[kNumbering] % kNumberings;
  row.source = {entry.userWords[kSourceFirst], entry.userWords[kSourceLast]};
  row.destination = {entry.userWords[kDestinationFirst], entry.userWords[kDestinationLast]};
  row.sourcePorts = portsOf(entry, 0);
  row.destinationPorts = portsOf(entry, 1);
  row.protocol = {static_cast<std::uint8_t>(entry.protocol.value),
                  static_cast<std::uint8_t>(entry.protocol.mask)};
  row.flags = {static_cast<std::uint16_t>(entry.tunnel[0].value), entry.tunnel[0].mask};
  row.decision = std::uint64_t{entry.actionWords[1]} << 32 | entry.actionWords[0];
  row.redirect = redirectOf(entry);
  return row;
}

Rule ruleOf(const TcamEntryLogEntry& entry) {
  const RuleRow row = ruleRowOf(entry);
  return {prefixOf(entry.sourcePrefix),
          prefixOf(entry.destinationPrefix),
          row.sourcePorts,
          row.destinationPorts,
          row.protocol,
          row.flags,
          row.redirect};
}

TcamActionEntry entryOf(const ActionRow& row) {
  TcamActionEntry entry(TcamActionEntryKey(row.bank, row.index));
  entry.requestId = ActionRow::RequestId(row.redirect);
  return entry;
}

}  // namespace Policy
