#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <random>

#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"

// What the killed agents and the test that watches them agree upon.
namespace RestartTest {

inline constexpr unsigned kUnits = 3;

using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;

using Tcam = QuarnBastil::TcamEntryFamily;
using Blocks = QuarnBastil::BigBbFamily;

struct Operation {
  enum class Kind : std::uint32_t { write, remove, clear };

  Kind kind;
  std::uint32_t unit;
  std::uint32_t key;
  std::uint32_t value;
  /// 1 plus the version at which the agent found it committed; 0 while it does not know of that.
  std::atomic<std::uint64_t> told;
};

enum class Phase : unsigned { start, bringUp, reconcile, up, load, churn, acknowledge, drained };
inline constexpr std::size_t kPhases = 8;
enum class Order : unsigned { wait, work, drain };

/// What an agent tells about one family: operations before they are asked for, outcomes when it
/// knows of them.
struct FamilyPage {
  static constexpr std::uint32_t kOperations = 1 << 18;

  std::atomic<std::uint32_t> asked;
  std::atomic<std::uint64_t> taken;
  std::atomic<bool> pending;
  std::array<std::atomic<std::uint32_t>, kUnits> entrys;
  std::array<Operation, kOperations> operations;

  void ask(Operation::Kind kind, std::uint32_t unit, std::uint32_t key = 0,
           std::uint32_t value = 0) {
    Operation& operation = operations[asked];
    operation.kind = kind;
    operation.unit = unit;
    operation.key = key;
    operation.value = value;
    operation.told = 0;
    ++asked;
  }
};

/// Lies in memory that outlives the agents.
struct Page {
  std::atomic<Phase> phase;
  std::atomic<Order> order;
  std::array<std::uint32_t, 2> units;
  std::uint32_t keys;
  unsigned seed;
  bool reset;
  bool load;
  FamilyPage tcam, blocks;
};

/// An agent that serves the units of the page until it is killed.
[[noreturn]] void runAgent(const std::string& directory, Page& page);

}  // namespace RestartTest
