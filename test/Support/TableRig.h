#pragma once

#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/OrderedTableInterface.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/TableVersionDrift.h"
#include "QuarnBastil/FamilyTraits.h"
#include "QuarnL3NiLib/ReqIdToFecResourceTableResourceTable.h"
#include "Stavro/EntityManager.h"

/// Tables on real shared memory, put together by hand. No test framework: the benchmarks use the
/// same.
namespace Support {

/// What all families of one agent share. A second one over the same directory, once the first has
/// gone, is a restarted agent.
class AgentRig {
 public:
  explicit AgentRig(const std::string& directory, const std::string& name = "agent")
      : memory_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(
            Fenrik::String(name), Fenrik::String(directory), Drift::Directory::Access::write)),
        state_(Fenrik::ptrIsImpl<Stavro::EntityManager>(Fenrik::String(name), true,
                                                        Fenrik::String(directory),
                                                        Drift::Directory::Access::write)),
        tables_(Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(state_)) {}

  const Fenrik::Ptr<KivSharedMem::EntityManager>& memory() const { return memory_; }
  const Fenrik::Ptr<Stavro::EntityManager>& state() const { return state_; }
  Asic::OrderedTableInterface& tables() const { return *tables_; }

  using Resources = QuarnL3NiLib::ReqIdToFecResourceTableResourceTable;
  /// The agent's resource table, made at its first use.
  Resources& resources() {
    if (resources_ == nullptr) {
      resources_ = Fenrik::ptrIsImpl<Resources>(tables_);
      tables_->resourceTableIs(resources_->canonicalName()->name(), resources_);
    }
    return *resources_;
  }
  /// What a family needs before its tables are made.
  template <class Family>
  void readyFor() {
    if constexpr (!std::is_void_v<typename Family::ResourceLinkage>) resources();
  }

  /// Commits whatever can be committed.
  void pumpAll() {
    while (tables_->pump(1000).more) {
    }
  }

 private:
  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  Fenrik::Ptr<Stavro::EntityManager> state_;
  Fenrik::Ptr<Asic::OrderedTableInterface> tables_;
  Fenrik::Ptr<Resources> resources_;
};

/// One family of an agent: its log, its set and a table for each unit.
template <class Family>
class TableRig {
 public:
  using SwTable = typename Family::SwTable;
  using EntryLog = typename Family::EntryLog;

  explicit TableRig(AgentRig& agent)
      : agent_(agent),
        group_([&] {
          agent.tables().makeGroupIntf(Family::kAgentName, Family::kGroupName,
                                       Family::kTableId.agentAndGroupId());
          return agent.tables().groupIntf(Family::Constants::canonicalGroupName());
        }()),
        log_(Fenrik::ptrIsImpl<EntryLog>(Family::kTableId, agent.state(), group_,
                                         Fenrik::String(Family::kAgentName))),
        status_(Fenrik::ptrIsImpl<Asic::OrderedSwTableStatus>(Family::kTableId)),
        set_(Fenrik::ptrIsImpl<Asic::OrderedSwTableSet>(Family::kTableId, status_)) {
    group_->swTableSetIs(set_);
  }
  ~TableRig() {
    // Group, set, table and log hold one another.
    group_->swTableSetDel(Family::kTableId);
    set_->swTableDelAll();
  }
  TableRig(const TableRig&) = delete;
  TableRig& operator=(const TableRig&) = delete;

  /// The table of a unit, made at its first use, over what the hardware has acknowledged.
  Fenrik::Ptr<SwTable> table(unsigned unit, std::uint64_t acknowledged = 0) {
    const Asic::UnitId unitId(static_cast<std::uint16_t>(unit));
    if (const auto present = set_->swTable(unitId)) return Fenrik::dynamicPtrCast<SwTable>(present);
    log_->mountDriftConfig(unitId, Asic::LogVersion(acknowledged));
    const auto name = Fenrik::ptrIsImpl<Asic::CanonicalTableName>(
        Asic::OrderedTableType::orderedTable, Family::kGroupName, Family::kTableNamespace,
        Family::kTableName);
    const auto table = Fenrik::ptrIsImpl<SwTable>(name, Family::kTableId, unitId, set_.get(), log_,
                                                  group_->groupResolver());
    table->statusIs(status_);
    if (const auto* const resources = QuarnBastil::descriptorOf<Family>().resources) {
      agent_.readyFor<Family>();
      resources->tableMade(agent_.tables(), *table);
      table->restoreEntries();
    }
    set_->swTableIs(table);
    return table;
  }

  const Fenrik::Ptr<Asic::GroupInterface>& group() const { return group_; }
  Asic::GroupResolver& resolver() const { return *group_->groupResolver(); }
  const Fenrik::Ptr<EntryLog>& log() const { return log_; }
  const Fenrik::Ptr<Asic::OrderedSwTableStatus>& status() const { return status_; }
  const Fenrik::Ptr<Asic::OrderedSwTableSet>& set() const { return set_; }

 private:
  AgentRig& agent_;
  Fenrik::Ptr<Asic::GroupInterface> group_;
  Fenrik::Ptr<EntryLog> log_;
  Fenrik::Ptr<Asic::OrderedSwTableStatus> status_;
  Fenrik::Ptr<Asic::OrderedSwTableSet> set_;
};

/// The hardware's side of one group: it reports versions.
class ReporterRig {
 public:
  ReporterRig(const std::string& directory, const Fenrik::String& canonicalGroup)
      : memory_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(
            "hwwriter", Fenrik::String(directory), Drift::Directory::Access::write)),
        reports_(Asic::TableVersionDrift::mounted(memory_, canonicalGroup)) {}

  void report(Asic::SwTableId tableId, std::uint64_t version) {
    reports_->tableVersionIs(Asic::TableVersion(tableId, Asic::LogVersion(version)));
    reports_->ring();
  }
  /// As if it had never reported anything of that table.
  void forget(Asic::SwTableId tableId) { reports_->tableVersionDel(tableId); }

 private:
  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  Fenrik::Ptr<Asic::TableVersionDrift> reports_;
};

}  // namespace Support
