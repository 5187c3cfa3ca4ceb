#include "OrderedTable/EntryLogBase.h"

namespace Asic {

EntryLogBase::EntryLogBase(SwTableId tableId,
                           const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
                           const Fenrik::Ptr<GroupInterface>& groupInterface,
                           const Fenrik::String& agentName)
    : tableId_(tableId),
      entityManager_(entityManager),
      groupInterface_(groupInterface),
      agentName_(agentName) {}

EntryLogBase::~EntryLogBase() = default;

}  // namespace Asic
