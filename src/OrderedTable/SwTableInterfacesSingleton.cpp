#include "OrderedTable/SwTableInterfacesSingleton.h"

#include "OrderedTable/OrderedTableInterface.h"

namespace Asic {

namespace {

const Kiv::EntitySingleton kSingleton(SwTableInterfacesSingleton::kFullName,
                                      Kiv::typeOf<SwTableInterfacesSingleton>(),
                                      []() -> Fenrik::Ptr<Kiv::Entity> {
                                        return Fenrik::ptrIsImpl<SwTableInterfacesSingleton>();
                                      });

}  // namespace

TableInterfaceBase::TableInterfaceBase(const Fenrik::Ptr<OrderedTableInterface>& ordTblIntf)
    : ordTblIntf_(ordTblIntf) {}
TableInterfaceBase::~TableInterfaceBase() = default;

SwTableInterfacesSingleton::SwTableInterfacesSingleton() = default;
SwTableInterfacesSingleton::~SwTableInterfacesSingleton() = default;

Fenrik::Ptr<SwTableInterfacesSingleton> SwTableInterfacesSingleton::instance() {
  auto found = Kiv::Entity::singletonExists(kFullName);
  if (found == nullptr) found = Kiv::Entity::singletonIs(Kiv::typeOf<SwTableInterfacesSingleton>());
  return Fenrik::dynamicPtrCast<SwTableInterfacesSingleton>(found);
}

}  // namespace Asic
