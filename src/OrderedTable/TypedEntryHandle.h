#pragma once

#include "Fenrik/Format.h"
#include "OrderedTable/OrderedSwTable.h"

#include "Kiv/Trace.h"

namespace Asic {

/// The part of a handle that knows the key and the table. `SwTable` states the trace handle of its
/// handles, `entryHandleTrace()`.
///
/// A handle may outlive its table, and then still tells whose it was: others may depend on it.
template <class Key, class SwTable>
class QUARNBASTIL_EXPORT TypedEntryHandle : public OrderedSwTable::EntryHandle {
 public:
  static constexpr std::uint16_t kFieldBase = 512;

  TypedEntryHandle(const EntryVersion& version, const Key& key, SwTable* table)
      : OrderedSwTable::EntryHandle(version),
        swTable_(table),
        key_(key),
        tableId_(table->tableId()),
        tableName_(table->canonicalName()) {}

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, key, value);
  FENRIK_VALUE(kFieldBase + 3, swTable, SwTable*);

 public:
  /// The key operated on; a zero key for the removal of everything.
  const Key& key() const noexcept { return key_; }

  Fenrik::String tableName() const override {
    KIV_TRACE(SwTable::entryHandleTrace(), 8, "EntryHandle", "");
    return tableName_->name();
  }
  SwTableId tableId() const override {
    KIV_TRACE(SwTable::entryHandleTrace(), 8, "EntryHandle", "");
    return tableId_;
  }
  Fenrik::String keyText() const override { return Fenrik::formatString("{}", key_); }

 private:
  Key key_;
  SwTableId tableId_;
  Fenrik::Ptr<const CanonicalTableName> tableName_;
};

}  // namespace Asic
