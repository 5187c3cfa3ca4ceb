#pragma once

#include <sys/mman.h>

#include <atomic>
#include <random>

#include "Support/Process.h"
#include "policy/Rows.h"

// An agent that goes from one list of rules to another and back, and may be killed at it.
namespace ToolsTest {

using Support::Outcome;
using Support::Process;

using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;

inline constexpr std::uint16_t kUnits = 2;

/// All rules that the lists are made of, in the order of their priorities, and all prefixes in them
/// with labels that no list changes.
struct Universe {
  Universe(Random& random, std::size_t ruleCount);

  std::vector<Policy::PrefixRow> prefixes;  ///< those that hold others before them
  std::vector<Policy::Rule> rules;

  const Policy::PrefixRow& rowOf(const Policy::Prefix& prefix) const;
};

/// The rules of a list by their places in the universe.
using Chosen = std::vector<bool>;

enum class Order : unsigned { churn, settle };

/// What the agent and the test tell each other; outlives the agents.
struct Page {
  std::atomic<Order> order;
  /// Everything that the last order asked for is in hardware.
  std::atomic<bool> settled;
  std::atomic<unsigned> changes;
};

struct Churn {
  Churn(unsigned seed, std::size_t ruleCount);
  ~Churn() { ::munmap(page, sizeof(Page)); }
  Churn(const Churn&) = delete;
  Churn& operator=(const Churn&) = delete;

  /// An agent over the directory. It empties tables at once now and then.
  Process agent(const std::string& directory);

  Random random;
  Universe universe;
  std::array<Chosen, 2> lists;
  Page* page;
};

}  // namespace ToolsTest
