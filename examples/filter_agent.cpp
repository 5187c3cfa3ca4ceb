// An agent that drops packets from some networks: a prefix row identifies a packet's network, and a
// rule row drops its packets. Started again with other networks, even after being killed, it writes
// the difference. Usage: filter_agent DIRECTORY NETWORK... (a network is a number n below 65536 and
// means 10.x.y.0/24, where n is 256 x + y)
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <stdexcept>

#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"

using namespace QuarnBastil;

namespace {

volatile std::sig_atomic_t ending = 0;

using Network = std::uint16_t;
BigBbFamily::Key prefixKey(Network network) {
  return {0x0a000000U | std::uint32_t{network} << 8, 24};
}
TcamEntryEntryKey ruleKey(Network network) { return {0, network}; }

class FilterAgent {
 public:
  explicit FilterAgent(const char* directory)
      : memory_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>("filter", directory,
                                                               Drift::Directory::Access::write)),
        tables_(
            Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(Fenrik::ptrIsImpl<Stavro::EntityManager>(
                "filter", true, directory, Drift::Directory::Access::write))) {
    const Asic::UnitId unit(0);
    prefixes_ = BigBbInterface::getIntf(tables_)->makeSwTable(unit, nullptr, false);
    rules_ = TcamEntryInterface::getIntf(tables_)->makeSwTable(unit, nullptr, false);
  }

  /// Networks with at least one row, possibly left by an interrupted change.
  std::set<Network> known() const {
    std::set<Network> networks;
    for (auto it = prefixes_->entryIteratorConst(); it; ++it) {
      networks.insert(static_cast<Network>(it->key.prefix >> 8));
    }
    for (auto it = rules_->entryIteratorConst(); it; ++it) networks.insert(it->key.index);
    return networks;
  }
  bool stands(Network network) const {
    return prefixes_->entryHas(prefixKey(network)) && rules_->entryHas(ruleKey(network));
  }

  void add(Network network) {
    const BigBbFamily::Entry prefix(prefixKey(network));
    const auto found = prefixes_->entryWriteWithResponseHandler(prefix.key, prefix, nullptr, tell_);
    TcamEntryEntry rule(ruleKey(network));
    const auto high = static_cast<std::uint8_t>(network >> 8);
    const auto low = static_cast<std::uint8_t>(network);
    rule.sourcePrefix = OptionalPrefix({10, high, low}, 0, 24);
    rules_->entryWriteWithResponseHandler(rule.key, rule, found, tell_);
  }

  void remove(Network network) {
    const auto gone = rules_->entryRemove(ruleKey(network), nullptr);
    prefixes_->entryRemoveWithResponseHandler(prefixKey(network), gone, tell_);
  }

  void commit() {
    while (tables_->pump(1000).more) continue;
  }

  void serve() {
    while (ending == 0) {
      commit();
      tables_->waitForReport(std::chrono::milliseconds(100));
    }
  }

 private:
  const Asic::ResponseHandler tell_ = [](const auto& handle) {
    if (!Asic::entryFailed(handle->entryState())) return;
    throw std::runtime_error("row " + std::string(handle->keyText().view()) + " was not stored");
  };

  Fenrik::Ptr<KivSharedMem::EntityManager> memory_;
  Fenrik::Ptr<Asic::OrderedTableInterface> tables_;
  Fenrik::Ptr<BigBbSwTable> prefixes_;
  Fenrik::Ptr<TcamEntrySwTable> rules_;
};

void run(const char* directory, const std::set<Network>& wanted) {
  FilterAgent agent(directory);
  unsigned added = 0;
  unsigned removed = 0;
  for (const Network network : wanted) {
    if (!agent.stands(network)) agent.add(network), ++added;
  }
  for (const Network network : agent.known()) {
    if (!wanted.contains(network)) agent.remove(network), ++removed;
  }
  agent.commit();
  std::printf("%u added, %u removed\n", added, removed);
  std::fflush(stdout);
  agent.serve();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return std::fprintf(stderr, "usage: filter_agent DIRECTORY NETWORK...\n"), 2;
  std::set<Network> wanted;
  for (int i = 2; i < argc; ++i) wanted.insert(static_cast<Network>(std::atoi(argv[i])));
  std::signal(SIGTERM, [](int) { ending = 1; });
  try {
    run(argv[1], wanted);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "filter_agent: %s\n", error.what());
    return 1;
  }
}
