#include "OrderedTable/TableName.h"

#include "Fenrik/Assert.h"
#include "Kiv/Sassert.h"

namespace Asic {

CanonicalTableName::CanonicalTableName(OrderedTableType type, const Fenrik::String& groupName,
                                       const Fenrik::String& tableNamespace,
                                       const Fenrik::String& tableName)
    : type_(type), groupName_(groupName), tableNamespace_(tableNamespace), tableName_(tableName) {}

CanonicalTableName::~CanonicalTableName() = default;

Fenrik::String CanonicalTableName::name() const {
  switch (type_) {
    case OrderedTableType::orderedTable:
      return "OrderedSwTable." + groupName_ + "." + tableName_;
    case OrderedTableType::partiallyOrderedTable:
      return "PartiallyOrderedSwTable." + tableName_;
    case OrderedTableType::resourceTable:
      return "ResourceTable." + tableNamespace_ + "::" + tableName_;
  }
  { Kiv::SassertHelper("\"false\"") << "Table type undefined!"; }
  __assert_fail("\"false\" == nullptr", "OrderedTable/TableName", __LINE__,
                "Kiv::String Asic::CanonicalTableName::name() const");
}

}  // namespace Asic
