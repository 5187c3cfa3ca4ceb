#pragma once

#include "Fenrik/Format.h"
#include "OrderedTable/OrderedSwTable.h"

namespace Asic {

struct TableDescriptor;

/// The part of a handle that identifies its table. It remains valid after the table is destroyed,
/// because other operations may still depend on the handle.
class QUARNBASTIL_EXPORT TableEntryHandle : public OrderedSwTable::EntryHandle {
 public:
  ~TableEntryHandle() override;

  Fenrik::String tableName() const override;
  SwTableId tableId() const override;
  Fenrik::String keyText() const override;

  const TableDescriptor& descriptor() const noexcept { return descriptor_; }

  /// Makes a handle from the addresses of a version, a key and a pointer to a table.
  static void kivConstruct(void* out, void* const* arguments);

 protected:
  TableEntryHandle(const EntryVersion& version, const OrderedSwTable& table);

 private:
  const TableDescriptor& descriptor_;
  Fenrik::Ptr<const CanonicalTableName> tableName_;
};

/// A handle with the family's key and table types.
template <class Key, class SwTable>
class QUARNBASTIL_EXPORT TypedEntryHandle : public TableEntryHandle {
 public:
  static constexpr std::uint16_t kFieldBase = 512;

  TypedEntryHandle(const EntryVersion& version, const Key& key, SwTable* table)
      : TableEntryHandle(version, *table), swTable_(table), key_(key) {}

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, key, value);
  FENRIK_VALUE(kFieldBase + 3, swTable, SwTable*);

 public:
  /// The operation's key; a zero key for a remove-all.
  const Key& key() const noexcept { return key_; }
  const void* keyBytes() const noexcept override { return &key_; }

 private:
  Key key_;
};

}  // namespace Asic
