#pragma once

#include <algorithm>

#include "Fenrik/NodeClass.h"
#include "OrderedTable/EntryHandle.h"

namespace Agent {

using Dependency = Fenrik::Ptr<const Asic::DependencyEntryHandle>;

/// A handle for all operations of a table up to a version, for operations that depend on those of
/// an earlier agent.
class LoggedSoFar final : public Fenrik::NodeClass<LoggedSoFar, Asic::DependencyEntryHandle> {
 public:
  LoggedSoFar(const Fenrik::String& tableName, Asic::TableVersion version);

  Asic::TableVersion entryTableVersion() const override { return version_; }
  Fenrik::String tableName() const override { return tableName_; }
  Asic::SwTableId tableId() const override { return version_.tableId(); }
  Fenrik::String keyText() const override { return "everything so far"; }

 private:
  Fenrik::String tableName_;
  Asic::TableVersion version_;
};

/// A handle for everything logged in a table so far.
template <class SwTable>
Dependency loggedSoFar(const SwTable& table) {
  return Fenrik::ptrIsImpl<LoggedSoFar>(
      table.canonicalName()->name(),
      Asic::TableVersion(table.tableId(), table.entryLog()->tableVersion()));
}

/// Whether the hardware has not reported all versions of a table.
template <class SwTable>
bool isBehind(const SwTable& table) {
  return table.entryLog()->tableStatusVersion() < table.entryLog()->tableVersion();
}

/// Number of log records of a table that the hardware has not reported.
template <class Interface>
std::uint64_t behindOf(const Interface& interface) {
  const auto& log = *interface.entryLog();
  const std::uint64_t reported = log.tableStatusVersion().value();
  return log.tableVersion().value() - std::min(reported, log.tableVersion().value());
}

}  // namespace Agent
