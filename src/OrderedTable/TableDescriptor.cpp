#include "OrderedTable/TableDescriptor.h"

namespace Asic {

std::string textOf(const KeyText& key) {
  std::string text;
  key.descriptor.records.key.textAppend(text, key.key);
  return text;
}

std::string textOf(const LogEntryText& entry) {
  std::string text;
  entry.descriptor.records.logEntry.textAppend(text, entry.logEntry);
  return text;
}

std::string textOf(const EntryText& entry) {
  const TableDescriptor::Records& records = entry.descriptor.records;
  std::string text;
  records.logEntry.textAppend(text, entry.entry);
  if (!records.resourceKeys.empty()) {
    text += ' ';
    records.resourceKeys.textAppend(
        text, static_cast<const std::byte*>(entry.entry) + records.resourceKeysInEntry);
  }
  return text;
}

}  // namespace Asic
