#pragma once

#include <cstdint>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/String.h"

namespace Asic {

/// Kind of table; determines the form of its name.
enum class OrderedTableType : std::uint8_t {
  orderedTable = 0,
  partiallyOrderedTable = 1,
  resourceTable = 2,
};

/// The name of a table.
class QUARNBASTIL_EXPORT CanonicalTableName final : public Fenrik::NodeClass<CanonicalTableName> {
 public:
  using KivModule = Kiv::Module<"TableName", CanonicalTableName>;
  static constexpr std::uint16_t kFieldBase = 128;

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, type, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, groupName, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, tableNamespace, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, tableName, value);
  FENRIK_FUNCTION(kFieldBase + 6, name);

  CanonicalTableName(OrderedTableType type, const Fenrik::String& groupName,
                     const Fenrik::String& tableNamespace, const Fenrik::String& tableName);
  ~CanonicalTableName() override;

  OrderedTableType type() const noexcept { return type_; }
  /// Canonical name of the table's group; empty if the table belongs to no group.
  const Fenrik::String& groupName() const noexcept { return groupName_; }
  const Fenrik::String& tableNamespace() const noexcept { return tableNamespace_; }
  const Fenrik::String& tableName() const noexcept { return tableName_; }

  /// "OrderedSwTable.<group>.<table>", "PartiallyOrderedSwTable.<table>" or
  /// "ResourceTable.<namespace>::<table>". Aborts if the type is undefined.
  Fenrik::String name() const;

 private:
  OrderedTableType type_;
  Fenrik::String groupName_;
  Fenrik::String tableNamespace_;
  Fenrik::String tableName_;
};

}  // namespace Asic
