#include <gmock/gmock.h>

#include <algorithm>

#include "Policy/TableModel.h"
#include "Support/Soak.h"
#include "Support/TempDir.h"
#include "asic/Chip.h"
#include "policy/Rows.h"

namespace ToolsTest {
namespace {

using Asic::UnitId;
using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;
using Words = std::vector<Tables::Word>;

const Tables::TableKind& kRules = *Tables::kindOf("TcamEntry");
const Tables::TableKind& kPrefixes = *Tables::kindOf("BigBb");

template <class LogEntry>
Words wordsOf(const LogEntry& entry) {
  Words words(Drift::FlatLayout<LogEntry>::kWords);
  Drift::FlatLayout<LogEntry>::toWords(entry, words.data());
  return words;
}
Words wordsOf(const Policy::PrefixRow& row) { return wordsOf(Policy::entryOf(row).logEntry()); }
Words wordsOf(const Policy::PlacedRule& placed) {
  return wordsOf(Policy::entryOf(placed.row, placed.rule, {placed.bank, placed.index}).logEntry());
}

/// One change of a unit, small enough that rows meet: a step, or everything of a table goes.
struct Change {
  explicit Change(Random& random) {
    unit = random() % 2;
    clears = random() % 64 == 0;
    step.removes = clears || random() % 3 == 0;
    const auto labels = [&] {
      const std::uint32_t first = random() % 8;
      return Policy::Labels{first, first + random() % 4};
    };
    const auto prefix = [&] {
      const auto length = static_cast<std::uint8_t>(random() % 5);
      return Policy::Prefix{length == 0 ? 0 : static_cast<std::uint32_t>(random()) << (32 - length),
                            length};
    };
    if (random() % 2 == 0) {
      step.row = Policy::PrefixRow{prefix(), {labels(), labels()}, 0};
      return;
    }
    Policy::PlacedRule placed;
    placed.index = static_cast<std::uint16_t>(random() % 24);
    placed.rule.source = prefix();
    placed.rule.destination = prefix();
    placed.row.priority = random() % 12;
    placed.row.numbering = random() % 2;
    placed.row.source = labels();
    placed.row.destination = labels();
    if (random() % 2 == 0) placed.row.sourcePorts = {100, 200};
    if (random() % 2 == 0) placed.row.protocol = {6, 0xff};
    placed.row.decision = 1 + random() % 1000;
    step.row = placed;
  }

  void apply(SimAsic::Chip& chip) const {
    const Tables::TableKind& kind = step.onPrefixes() ? kPrefixes : kRules;
    const UnitId at(static_cast<std::uint16_t>(unit));
    const Words words = std::visit([](const auto& row) { return wordsOf(row); }, step.row);
    if (clears) {
      chip.clear(kind, at);
    } else if (step.removes) {
      chip.remove(kind, at, Tables::keyOf(kind, words));
    } else {
      chip.write(kind, at, words);
    }
  }

  unsigned unit;
  bool clears;
  Policy::Step step;
};

/// One unit by looking at everything every time.
struct NaiveUnit {
  PolicyTest::TableModel model;
  std::uint64_t violations = 0;

  void apply(const Change& change) {
    if (!change.clears) return apply(change.step);
    const auto picture = model.picture();
    if (change.step.onPrefixes()) {
      for (const auto& row : picture.prefixes) apply({.row = row, .removes = true});
    } else {
      for (const auto& placed : picture.rules) apply({.row = placed, .removes = true});
    }
  }

  void apply(const Policy::Step& step) {
    const auto& prefixes = model.prefixes();
    if (step.onPrefixes()) {
      const Policy::Prefix prefix = std::get<0>(step.row).prefix;
      const auto names = [&](const auto& row) {
        return row.second.rule.source == prefix || row.second.rule.destination == prefix;
      };
      const bool goes = step.removes && prefixes.contains(prefix);
      violations += goes && std::ranges::any_of(model.rules(), names) ? 1 : 0;
    } else if (!step.removes) {
      const auto& placed = std::get<1>(step.row);
      for (const auto& prefix : {placed.rule.source, placed.rule.destination}) {
        violations += prefixes.contains(prefix) ? 0 : 1;
      }
    }
    model.apply(step);
  }

  void compare(SimAsic::Chip& chip, UnitId unit, Random& random) const {
    const auto same = [&](const Tables::TableKind& kind, const auto& rows) {
      std::uint64_t digest = 0;
      for (const auto& [key, row] : rows) digest += Tables::rowDigest(kind.id, unit, wordsOf(row));
      ASSERT_EQ(chip.rowCount(kind, unit), rows.size());
      ASSERT_EQ(chip.digest(kind, unit), digest);
    };
    same(kRules, model.rules());
    same(kPrefixes, model.prefixes());
    for (int n = 0; n < 4; ++n) {
      const Policy::Packet packet{random(),
                                  random(),
                                  static_cast<std::uint16_t>(random() % 300),
                                  0,
                                  static_cast<std::uint8_t>(random() % 2 == 0 ? 6 : 17),
                                  0};
      ASSERT_EQ(chip.decide(unit, packet), model.decide(packet));
    }
  }
};

TEST(AsicSoak, AgreesWithALookAtEverything) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(testing::Message() << "BASTIL_SEED=" << seed);
  Random random(seed);
  const Support::TempDir dir;
  std::array<NaiveUnit, 2> naive;
  auto chip = std::make_unique<SimAsic::Chip>(dir.path());
  for (int step = 0; step < 4000 * Support::soakFactor() && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    if (step % 200 == 199) {
      chip->metersStore();
      chip = nullptr;
      chip = std::make_unique<SimAsic::Chip>(dir.path());
    }
    const Change change(random);
    change.apply(*chip);
    naive[change.unit].apply(change);
    for (std::uint16_t unit = 0; unit < 2; ++unit) naive[unit].compare(*chip, UnitId(unit), random);
    ASSERT_EQ(chip->meters().violations, naive[0].violations + naive[1].violations);
  }
}

}  // namespace
}  // namespace ToolsTest
