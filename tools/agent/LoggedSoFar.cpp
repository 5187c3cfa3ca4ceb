#include "agent/LoggedSoFar.h"

namespace Agent {

LoggedSoFar::LoggedSoFar(const Fenrik::String& tableName, Asic::TableVersion version)
    : tableName_(tableName), version_(version) {
  entryStateStore(Asic::EntryState::entryInLog);
}

}  // namespace Agent
