#include <unistd.h>

#include <vector>

#include "Restart/Oracle.h"
#include "Support/FamilyMemory.h"
#include "Support/Running.h"

namespace RestartTest {
namespace {

using Asic::UnitId;
using Kind = Operation::Kind;

template <class Family>
class Served {
 public:
  Served(Support::Running& agent, Page& page, FamilyPage& told)
      : agent_(agent), page_(page), told_(told) {}

  void bringUp() {
    interface_ = agent_.interface<Family>();
    for (const std::uint32_t unit : page_.units) {
      tables_[unit] = agent_.table<Family>(unit, page_.reset);
    }
  }

  void reconcile() {
    interface_->reconcile();
    for (std::uint32_t unit = 0; unit < kUnits; ++unit) {
      if (!interface_->swTableSet()->swTableHas(UnitId(static_cast<std::uint16_t>(unit)))) continue;
      told_.entrys[unit] = agent_.table<Family>(unit)->entrys();
    }
    tell();
  }

  void tell() {
    told_.pending = interface_->swTableStatus()->pendingHwWrites();
    told_.taken = interface_->entryLog()->tableStatusVersion().value();
  }

  void load(Random& random) {
    for (const std::uint32_t unit : page_.units) {
      for (std::uint32_t key = 0; key < page_.keys; ++key) {
        if (!tables_[unit]->entryHas(Support::Numbers<Family>::key(key)))
          write(unit, key, random());
        if (queued_.size() == 64) settle(64);
      }
    }
    settle(64);
  }

  void churn(Random& random) {
    if (told_.asked + 64 > FamilyPage::kOperations) return;
    for (unsigned n = 1 + random() % 12; n != 0; --n) {
      const std::uint32_t unit = page_.units[random() % 2];
      const std::uint32_t key = random() % page_.keys;
      const bool there = tables_[unit]->entryHas(Support::Numbers<Family>::key(key));
      if (random() % (4 * page_.keys) == 0 && tables_[unit]->entrys() != 0) {
        removeAll(unit);
      } else if (there && random() % 2 == 0) {
        remove(unit, key);
      } else {
        write(unit, key, random());
      }
    }
    settle(1 + random() % 4);
  }

 private:
  void write(std::uint32_t unit, std::uint32_t key, std::uint32_t value) {
    told_.ask(Kind::write, unit, key, value);
    const auto entry = Support::entryOf<Family>(key, value);
    queued_.push_back({told_.asked - 1, tables_[unit]->entryWrite(entry.key, entry, nullptr)});
  }
  void remove(std::uint32_t unit, std::uint32_t key) {
    told_.ask(Kind::remove, unit, key);
    queued_.push_back(
        {told_.asked - 1, tables_[unit]->entryRemove(Support::Numbers<Family>::key(key), nullptr)});
  }
  void removeAll(std::uint32_t unit) {
    told_.ask(Kind::clear, unit);
    tables_[unit]->entryRemoveAll(nullptr);
  }

  /// Commits what is queued and tells the versions.
  void settle(unsigned budget) {
    std::size_t known = 0;
    for (bool more = true; more;) {
      more = agent_.tables().pump(budget).more;
      for (; known < queued_.size(); ++known) {
        const auto& [number, handle] = queued_[known];
        if (handle->entryState() == Asic::EntryState::entryPending) break;
        told_.operations[number].told = 1 + handle->logVersion().value();
      }
      told_.taken = interface_->entryLog()->tableStatusVersion().value();
    }
    if (known != queued_.size()) ::_exit(1);
    queued_.clear();
  }

  Support::Running& agent_;
  Page& page_;
  FamilyPage& told_;
  Fenrik::Ptr<typename Family::Interface> interface_;
  std::array<Fenrik::Ptr<typename Family::SwTable>, kUnits> tables_;
  std::vector<std::pair<std::uint32_t, typename Family::SwTable::HandlePtr>> queued_;
};

}  // namespace

void runAgent(const std::string& directory, Page& page) {
  Random random(page.seed);
  Support::Running agent(directory);
  Served<Tcam> tcam(agent, page, page.tcam);
  Served<Blocks> blocks(agent, page, page.blocks);
  page.phase = Phase::bringUp;
  tcam.bringUp();
  blocks.bringUp();
  page.phase = Phase::reconcile;
  tcam.reconcile();
  blocks.reconcile();
  page.phase = Phase::up;
  while (page.order == Order::wait) ::usleep(50);
  if (page.load) {
    page.phase = Phase::load;
    tcam.load(random);
    blocks.load(random);
  }
  page.phase = Phase::churn;
  while (page.order == Order::work) random() % 2 == 0 ? tcam.churn(random) : blocks.churn(random);
  page.phase = Phase::acknowledge;
  for (;;) {
    agent.pumpAll();
    tcam.tell();
    blocks.tell();
    if (!page.tcam.pending && !page.blocks.pending) page.phase = Phase::drained;
    agent.tables().waitForReport(std::chrono::seconds(1));
  }
}

}  // namespace RestartTest
