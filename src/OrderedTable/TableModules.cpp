#include "OrderedTable/TableModules.h"

#include "Fenrik/TypeData.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/SwTableInterfacesSingleton.h"
#include "OrderedTable/ValueTypes.h"

KIV_MODULE(Asic::EntryHandleModule);
KIV_MODULE(Asic::OrderedSwTableModule);
KIV_MODULE(Asic::SwTableIteratorStateModule);
KIV_MODULE(Asic::ResolverEntryModule);
KIV_MODULE(Asic::EntryLogBaseModule);
KIV_MODULE(Asic::TableInterfaceBaseModule);
KIV_MODULE(Asic::ValueTypesModule);
KIV_MODULE(Asic::CanonicalTableName::KivModule);
KIV_MODULE(Asic::SwTableStats::KivModule);
KIV_MODULE(Asic::OrderedSwTableStatus::KivModule);
KIV_MODULE(Asic::OrderedSwTableSet::KivModule);
KIV_MODULE(Asic::NeededEntry::KivModule);
KIV_MODULE(Asic::GroupResolver::KivModule);
KIV_MODULE(Asic::GroupInterface::KivModule);
KIV_MODULE(Asic::OrderedTableInterfaceModule);
KIV_MODULE(Asic::SwTableInterfacesSingleton::KivModule);
