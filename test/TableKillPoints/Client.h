#pragma once

#include <optional>

#include "OrderedTable/SwTableInterfacesSingleton.h"
#include "Support/TableRig.h"
#include "TableKillPoints/Picture.h"

namespace TableKill {

/// What the resource side would make of an entry.
inline unsigned resolvedValue = 0;

template <class F>
class Helper final : public Fenrik::NodeClass<Helper<F>, typename F::SwTableHelperBase> {
  bool finalizeOnResourceUpdate(const Fenrik::Ptr<typename F::EntryWrapper>& wrapper,
                                const Fenrik::Ptr<typename F::SwTable>&, bool) override {
    using Value = std::remove_reference_t<decltype(valueOf(wrapper->mutableEntry()))>;
    valueOf(wrapper->mutableEntry()) = static_cast<Value>(resolvedValue);
    return true;
  }
};

/// The agent's side of one family, brought up as agents do.
template <class F>
class Tables {
 public:
  explicit Tables(const Support::AgentRig& agent)
      : interface_(
            F::Interface::getIntf(Fenrik::Ptr<Asic::OrderedTableInterface>(&agent.tables()))) {}
  ~Tables() {
    Asic::SwTableInterfacesSingleton::instance()->swTableIntfDel(F::Interface::registryKey());
  }
  Tables(const Tables&) = delete;
  Tables& operator=(const Tables&) = delete;

  void makeTables() {
    for (unsigned unit = 0; unit < kUnits; ++unit) {
      const Asic::UnitId unitId(static_cast<std::uint16_t>(unit));
      tables_[unit] = interface_->makeSwTable(unitId, Fenrik::ptrIsImpl<Helper<F>>(), false);
    }
    interface_->reconcile();
  }
  typename F::SwTable& operator[](unsigned unit) const { return *tables_[unit]; }

 private:
  Fenrik::Ptr<typename F::Interface> interface_;
  std::array<Fenrik::Ptr<typename F::SwTable>, kUnits> tables_;
};

/// An agent over a directory, the client that uses its tables by their numbers, and the hardware's
/// reports.
class Client {
  template <class Do>
  auto with(std::size_t t, Do what) {
    return t == 0 ? what(first_) : what(second_);
  }

 public:
  using Handle = Fenrik::Ptr<const Asic::DependencyEntryHandle>;

  explicit Client(const std::string& directory)
      : directory_(directory), agent_(directory), first_(agent_), second_(agent_) {
    first_.makeTables();
    second_.makeTables();
  }

  Handle write(std::size_t t, unsigned unit, unsigned key, unsigned value,
               const Handle& dependency = nullptr) {
    return with(t, [&]<class F>(Tables<F>& tables) -> Handle {
      typename F::Entry entry(keyOf<F>(key));
      valueOf(entry) = static_cast<std::remove_reference_t<decltype(valueOf(entry))>>(value);
      return tables[unit].entryWriteWithResponseHandler(entry.key, entry, dependency, handler());
    });
  }
  void remove(std::size_t t, unsigned unit, unsigned key) {
    with(t, [&]<class F>(Tables<F>& tables) {
      tables[unit].entryRemoveWithResponseHandler(keyOf<F>(key), nullptr, handler());
    });
  }
  void removeAll(std::size_t t, unsigned unit) {
    with(t, [&]<class F>(Tables<F>& tables) { tables[unit].entryRemoveAll(nullptr); });
  }
  void update(std::size_t t, unsigned unit, unsigned key, unsigned value) {
    resolvedValue = value;
    with(t, [&]<class F>(Tables<F>& tables) { tables[unit].updateEntry(keyOf<F>(key)); });
  }
  std::optional<unsigned> read(std::size_t t, unsigned unit, unsigned key) {
    return with(t, [&]<class F>(Tables<F>& tables) -> std::optional<unsigned> {
      if (!tables[unit].entryHas(keyOf<F>(key))) return {};
      auto entry = tables[unit].entryRead(keyOf<F>(key));
      return valueOf(entry);
    });
  }

  /// The hardware says how far it has come; the agent hears of it at its next pump.
  void report(std::size_t t, Word version) {
    with(t, [&]<class F>(Tables<F>&) {
      Support::ReporterRig(directory_, F::Constants::canonicalGroupName())
          .report(F::kTableId, version);
    });
    agent_.tables().waitForReport(std::chrono::nanoseconds(0));
  }
  void pump() {
    do agent_.pumpAll();
    while (agent_.tables().pump(1).reports != 0);
  }

  unsigned asked() const { return asked_; }
  unsigned done() const { return done_; }

 private:
  Asic::ResponseHandler handler() {
    ++asked_;
    return [this](const auto& handle) {
      done_ += handle->entryState() == Asic::EntryState::entryDone ? 1 : 0;
    };
  }

  std::string directory_;
  Support::AgentRig agent_;
  Tables<Family<0>> first_;
  Tables<Family<1>> second_;
  unsigned asked_ = 0;
  unsigned done_ = 0;
};

}  // namespace TableKill
