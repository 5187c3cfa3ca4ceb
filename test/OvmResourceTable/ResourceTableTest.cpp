#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "Drift/DriftError.h"
#include "QuarnL3NiLib/ReqIdToFecResourceDrift.h"
#include "QuarnL3NiLib/ReqIdToFecResourceTableResourceTable.h"
#include "Support/Soak.h"
#include "Support/TableRig.h"
#include "Support/TempDir.h"

namespace {

using namespace Asic;
using Table = QuarnL3NiLib::ReqIdToFecResourceTableResourceTable;
using Key = Table::Key;
using OvmResourceTable::ResourceRefusedException;
using HandlePtr = Fenrik::Ptr<const Table::ResourceHandle>;

constexpr std::uint16_t kGroup = 0x0408;

/// A log record of a client's table.
class Record final : public Fenrik::NodeClass<Record, SwTableBase::EntryHandle> {
 public:
  explicit Record(SwTableId table) : NodeClass(EntryVersion()), table_(table) {}
  Fenrik::String tableName() const override { return "Rows"; }
  SwTableId tableId() const override { return table_; }
  Fenrik::String keyText() const override { return ""; }
  void loggedIs(std::uint64_t version) {
    logVersionIs(LogVersion(version));
    entryStateIs(EntryState::entryInLog);
  }

 private:
  SwTableId table_;
};

/// What a client's table logged of one key, oldest first. Destination 0: no row.
struct Rows {
  struct Logged {
    std::uint64_t version;
    std::uint32_t destId;
  };
  std::vector<Logged> log;

  /// Whether the hardware has the destination, or will.
  bool mayUse(std::uint32_t destId, std::uint64_t reported) const {
    for (std::size_t i = 0; i < log.size(); ++i) {
      const bool replaced = i + 1 < log.size() && log[i + 1].version <= reported;
      if (!replaced && log[i].destId == destId) return true;
    }
    return false;
  }
};

struct Client {
  SwTableId id;
  std::uint64_t version = 0, reported = 0;
  std::map<unsigned, Rows> rows;  // outlives the agent
  Fenrik::Ptr<Table::ClientInstance> instance;
  struct Held {
    HandlePtr handle;
    std::unique_ptr<Fenrik::Subscriber> subscriber;
    unsigned int acknowledged = 0;
    bool hasRow = false;
  };
  std::map<unsigned, Held> held;
};

class World;
class Provider final : public Fenrik::NodeClass<Provider, QuarnL3NiLib::ReqIdToFecProvider> {
 public:
  explicit Provider(World& world) : world_(world) {}
  void handleResourceWanted(const Key& key) override;
  void handleResourceUnwanted(const Key& key) override;
  void handleDestIdUnused(std::uint32_t destId) override;
  void handleEarlierSettled() override;

 private:
  World& world_;
};

unsigned announcements = 0;

/// An agent with a provider and clients, and the hardware, which outlives it.
class World {
 public:
  static constexpr unsigned kClients = 3, kKeys = 6, kDestIds = 9;

  explicit World(unsigned seed) : random(seed) {
    for (unsigned i = 0; i < kClients; ++i) clients[i].id = SwTableId(4, 8, std::uint16_t(i + 1));
    start();
  }

  unsigned below(unsigned bound) { return static_cast<unsigned>(random() % bound); }

  void start() {
    agent = std::make_unique<Support::AgentRig>(dir.path());
    agent->tables().makeGroupIntf("QuarnBastil", "Rows", kGroup);
    reporter = std::make_unique<Support::ReporterRig>(dir.path(), "QuarnBastil-Rows");
    table = Fenrik::ptrIsImpl<Table>(Fenrik::Ptr<OrderedTableInterface>(&agent->tables()));
    EXPECT_EQ(table->entryCount(), values.size());
    for (const auto& [key, destId] : values) EXPECT_EQ(table->destId(Key(key)), destId);
    table->providerIs(Fenrik::ptrIsImpl<Provider>(*this));
    ending.clear();
    replaced.clear();
    // The earlier agent's provider may change its mind before its clients are back.
    if (!values.empty() && below(2) == 0) provide();
    for (Client& client : clients) {
      client.instance = table->makeClientInstance();
      for (unsigned key = 1; key <= kKeys; ++key) {
        Rows& rows = client.rows[key];
        if (rows.log.empty()) continue;
        if (rows.log.back().destId == 0) {
          // There is no log behind these rows that would show removals in progress.
          client.reported = std::max(client.reported, rows.log.back().version);
          continue;
        }
        request(client, key);
        client.held[key].hasRow = true;
        takeIn(client, key);
      }
      report(client, client.reported);
    }
    table->reconcile();
  }

  void stop() {
    for (Client& client : clients) {
      client.held.clear();
      client.instance = nullptr;
    }
    EXPECT_EQ(table->handleCount(), 0U);
    table = nullptr;
    reporter = nullptr;
    agent = nullptr;
  }

  void request(Client& client, unsigned key) {
    auto handle = client.instance->request(Key(key), nullptr);
    ASSERT_NE(handle, nullptr);
    EXPECT_FALSE(handle->isPostReleaseProtoState());
    auto& held = client.held[key];
    if (held.handle != nullptr) {
      EXPECT_EQ(held.handle, handle);
      return;
    }
    held.handle = handle;
    held.subscriber = std::make_unique<Fenrik::Subscriber>();
    held.subscriber->dispatchIs(
        [](const Fenrik::Publisher&, Fenrik::Subscriber&, const Fenrik::Change& change) noexcept {
          announcements += change.fieldId == Fenrik::FieldId{517} ? 1 : 100;
        });
    handle->publisher()->subscriberAdd(*held.subscriber, false);
  }

  /// Logs the client's row with what the resource shows, unless it has that already.
  void takeIn(Client& client, unsigned key) {
    auto& held = client.held[key];
    if (!held.hasRow && held.handle->entryState() != EntryState::entryDone) return;
    auto& log = client.rows[key].log;
    const auto record = Fenrik::ptrIsImpl<Record>(client.id);
    const bool pending = held.handle->entryState() == EntryState::entryPending;
    if (log.empty() || (log.back().destId != held.handle->destId() && !pending)) {
      log.push_back({++client.version, held.handle->destId()});
    }
    record->loggedIs(log.back().version);
    held.acknowledged = held.handle->updateNumber();
    held.hasRow = true;
    client.instance->ackUpdate(held.handle, held.acknowledged, record);
  }

  /// Removes the row; the record gets its version after the release, as in a remove-all.
  void release(Client& client, unsigned key) {
    const HandlePtr handle = client.held[key].handle;
    const auto record = Fenrik::ptrIsImpl<Record>(client.id);
    client.instance->release(handle, record);
    EXPECT_TRUE(handle->isPostReleaseProtoState());
    client.held.erase(key);
    report(client, client.version);
    client.rows[key].log.push_back({++client.version, 0});
    record->loggedIs(client.version);
    client.instance->release(handle, nullptr);
    client.instance->ackUpdate(handle, handle->updateNumber(), nullptr);
  }

  void report(Client& client, std::uint64_t version) {
    client.reported = std::min(client.version, std::max(client.reported, version));
    reporter->report(client.id, client.reported);
    agent->pumpAll();
  }

  void change(unsigned key, EntryState state, std::uint32_t destId) {
    const bool given = values.contains(key);
    const auto former = given ? values[key] : 0;
    const bool moved = state != states[key] || destId != former || !given;
    unsigned handles = 0;
    for (Client& client : clients) handles += client.held.contains(key) ? 1 : 0;
    const unsigned before = announcements;
    const unsigned int number = table->updateNumber(Key(key));
    if (ending.contains(key)) {
      EXPECT_THROW(table->resourceIs(Key(key), state, destId, nullptr), ResourceRefusedException);
      EXPECT_EQ(announcements, before);
      return;
    }
    values[key] = destId;
    states[key] = state;
    if (given && former != 0 && former != destId) replaced.insert(former);
    told.erase(destId);
    table->resourceIs(Key(key), state, destId, nullptr);
    EXPECT_EQ(announcements, before + (moved ? handles : 0));
    EXPECT_EQ(table->updateNumber(Key(key)), number + (moved ? 1 : 0));
  }

  void provide() {
    const unsigned key = 1 + below(kKeys);
    const unsigned kind = below(10);
    if (kind == 0 && values.contains(key)) {
      if (values[key] != 0) replaced.insert(values[key]);
      values.erase(key);
      states.erase(key);
      if (!table->users(Key(key)).empty()) ending.insert(key);
      EXPECT_TRUE(table->resourceDel(Key(key)));
    } else if (kind == 1 && values.contains(key)) {
      change(key, EntryState::entryResourceFailed, values[key]);
    } else {
      change(key, EntryState::entryDone, 1 + below(kDestIds));
    }
  }

  bool mayUse(std::uint32_t destId) const {
    for (const Client& client : clients) {
      for (const auto& [key, rows] : client.rows) {
        if (rows.mayUse(destId, client.reported)) return true;
      }
    }
    return false;
  }
  bool current(std::uint32_t destId) const {
    return std::ranges::any_of(values, [&](const auto& v) { return v.second == destId; });
  }

  void step() {
    Client& client = clients[below(kClients)];
    const unsigned key = 1 + below(kKeys);
    const auto held = client.held.find(key);
    const bool hasHandle = held != client.held.end();
    switch (below(8)) {
      case 0:
        return provide();
      case 1:
        return request(client, key);
      case 2:
        return report(client, client.reported + 1 + below(4));
      case 3:
        if (hasHandle && held->second.hasRow) release(client, key);
        return;
      case 4:  // a write that is dropped
        if (hasHandle && !held->second.hasRow) client.held.erase(key);
        return;
      case 5:  // nothing of this is an acknowledgement
        if (!hasHandle || !held->second.hasRow) return;
        client.instance->ackUpdate(held->second.handle, held->second.acknowledged, nullptr);
        client.instance->ackUpdate(held->second.handle, held->second.handle->updateNumber() + 1,
                                   nullptr);
        clients[(&client - clients + 1) % kClients].instance->release(held->second.handle, nullptr);
        return;
      default:
        if (hasHandle) takeIn(client, key);
    }
  }

  /// Everyone takes in everything, and the hardware follows.
  void settle() {
    for (Client& client : clients) {
      for (auto& [key, held] : client.held) takeIn(client, key);
      report(client, client.version);
    }
    if (!table->earlierSettled()) return;
    for (const std::uint32_t destId : replaced) {
      EXPECT_TRUE(told.contains(destId) || current(destId) || mayUse(destId)) << destId;
    }
    replaced.clear();
  }

  Support::TempDir dir;
  std::mt19937_64 random;
  std::unique_ptr<Support::AgentRig> agent;
  std::unique_ptr<Support::ReporterRig> reporter;
  Fenrik::Ptr<Table> table;
  Client clients[kClients];
  std::map<unsigned, std::uint32_t> values;
  std::map<unsigned, EntryState> states;
  std::set<unsigned> ending;
  /// Destinations that were replaced, and those told unused since they were last given.
  std::set<std::uint32_t> replaced, told;
  unsigned tellings = 0, settlings = 0;
};

void Provider::handleResourceWanted(const Key& key) {
  if (world_.below(2) == 0 || world_.ending.contains(unsigned(key.value()))) return;
  const std::uint32_t destId = 1 + world_.below(World::kDestIds);
  const auto number = world_.table->updateNumber(key);
  world_.table->valueIs(key, destId, nullptr);
  EXPECT_EQ(world_.table->updateNumber(key), number) << "a change within a call";
  world_.values[unsigned(key.value())] = destId;
  world_.states[unsigned(key.value())] = EntryState::entryDone;
  world_.told.erase(destId);
}
void Provider::handleResourceUnwanted(const Key& key) {
  world_.ending.erase(unsigned(key.value()));
  for (const Client& client : world_.clients) {
    EXPECT_FALSE(client.held.contains(unsigned(key.value())));
  }
}
void Provider::handleDestIdUnused(std::uint32_t destId) {
  EXPECT_FALSE(world_.mayUse(destId)) << destId << " is still in hardware";
  EXPECT_FALSE(world_.current(destId)) << destId;
  EXPECT_TRUE(world_.told.insert(destId).second) << destId << " is told twice";
  ++world_.tellings;
}
void Provider::handleEarlierSettled() {
  ++world_.settlings;
  for (std::uint32_t destId = 1; destId <= World::kDestIds; ++destId) {
    if (world_.table->destIdUsed(destId)) continue;
    EXPECT_FALSE(world_.mayUse(destId)) << destId;
    world_.told.insert(destId);
  }
}

/// Rows of simulated hardware are what counts: no destination may be told unused that one of them
/// has, or will have.
TEST(ResourceTableSoak, AnOldDestinationIsToldUnusedOnlyWhenNoRowHasIt) {
  const Support::Seed seed;
  World world(seed);
  for (int round = 0; round < 40 * Support::soakFactor(); ++round) {
    for (int i = 0; i < 400 && !testing::Test::HasFailure(); ++i) world.step();
    if (testing::Test::HasFailure()) return;
    if (world.below(2) == 0) {
      world.stop();
      world.start();
    }
    world.settle();
  }
  EXPECT_GT(world.tellings, 40U);
  EXPECT_GT(world.settlings, 5U);
}

TEST(ResourceTableTest, RefusesBadInputAndChangesNothing) {
  World world(1);
  Table& table = *world.table;
  const Key key(7);
  table.valueIs(key, 70, nullptr);
  Client& client = world.clients[0];
  world.request(client, 7);
  world.takeIn(client, 7);
  const struct {
    Key key;
    EntryState state;
  } bad[] = {{Key(0), EntryState::entryDone},
             {key, EntryState::entryStateReserved},
             {key, static_cast<EntryState>(7)},
             {key, static_cast<EntryState>(255)}};
  for (const auto& [badKey, state] : bad) {
    EXPECT_THROW(table.resourceIs(badKey, state, 71, nullptr), ResourceRefusedException);
  }
  EXPECT_EQ(table.destId(key), 70U);
  EXPECT_EQ(table.updateNumber(key), 1U);
  const auto nothing = client.instance->request(Key(0), nullptr);
  EXPECT_TRUE(entryFailed(nothing->entryState()));
  EXPECT_FALSE(table.resourceDel(Key(8)));
}

/// A million of them leave nothing behind.
TEST(ResourceTableTest, ForgetsWritesThatAreDropped) {
  World world(1);
  world.table->providerIs(nullptr);
  const auto& client = world.clients[0].instance;
  const unsigned handles = world.table->handleCount();
  for (std::uint64_t i = 1; i <= 1'000'000; ++i) client->request(Key(i), nullptr);
  world.agent->pumpAll();
  EXPECT_EQ(world.table->handleCount(), handles);
  EXPECT_EQ(world.table->resourceCount(), 0U);
  EXPECT_EQ(client->handleCount(), 0U);
}

TEST(ResourceTableTest, AnswersWithAFailedHandleWhenItIsFull) {
  World world(1);
  Table& table = *world.table;
  const HandlePtr waiting = world.clients[0].instance->request(Key(1'000'000), nullptr);
  table.providerIs(nullptr);
  for (std::uint32_t i = 1; !table.drift()->writer().full(); ++i) {
    table.valueIs(Key(i), i, nullptr);
  }
  EXPECT_THROW(table.valueIs(waiting->key(), 5, nullptr), Drift::CollectionFullException);
  EXPECT_TRUE(entryFailed(waiting->entryState()));
  const HandlePtr late = world.clients[0].instance->request(Key(1'000'001), nullptr);
  EXPECT_TRUE(entryFailed(late->entryState()));
  EXPECT_TRUE(table.resourceDel(Key(1)));
  table.valueIs(late->key(), 6, nullptr);
  EXPECT_EQ(late->entryState(), EntryState::entryDone);
  EXPECT_EQ(late->destId(), 6U);
}

}  // namespace
