#include "Policy/AgentRun.h"

#include <algorithm>

#include "Drift/RecordLayout.h"
#include "policy/Rows.h"
#include "tables/Collections.h"

namespace PolicyTest {
namespace {

using QuarnBastil::BigBbFamily;
using QuarnBastil::TcamEntryFamily;

template <class Family>
void eachEntry(const Drift::Directory& directory, unsigned number, auto take) {
  const auto& kind = *Tables::kindOf(Family::kTableId);
  const Asic::UnitId unit(static_cast<std::uint16_t>(number));
  const auto units = Tables::configuredUnits(directory, kind);
  if (std::ranges::find(units, unit) == units.end()) return;
  Tables::Config(directory, kind, unit)
      .walk(
          [&](const Tables::ConfigRow& row) {
            if (row.isDeleted) return;
            typename Family::LogEntry entry;
            Drift::FlatLayout<typename Family::LogEntry>::fromWords(row.entry.data(), entry);
            take(entry);
          },
          [](const std::string& damage) { ADD_FAILURE() << damage; });
}

template <class Family>
std::uint64_t versionIn(const Drift::Directory& directory) {
  const auto& kind = *Tables::kindOf(Family::kTableId);
  try {
    const Tables::Collection log(directory, kind.logPath, kind.log);
    return Tables::lineOf(log.file(), Drift::Format::Line::announced).value_or(0);
  } catch (const Drift::MountException&) {
    return 0;
  }
}

std::vector<std::string> agentWords(const std::string& directory,
                                    const std::vector<std::string>& arguments) {
  std::vector<std::string> words{BASTIL_AGENT, "--dir", directory};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

}  // namespace

AgentRun::AgentRun(const std::string& directory, const std::vector<std::string>& arguments)
    : Program(agentWords(directory, arguments)) {}

Policy::Picture pictureIn(const std::string& path, unsigned unit) {
  Policy::Picture picture;
  const Drift::Directory directory(path, Drift::Directory::Access::read);
  eachEntry<BigBbFamily>(directory, unit, [&](const auto& entry) {
    picture.prefixes.push_back(Policy::prefixRowOf(entry));
  });
  eachEntry<TcamEntryFamily>(directory, unit, [&](const auto& entry) {
    picture.rules.push_back(
        {entry.key.bank, entry.key.index, Policy::ruleOf(entry), Policy::ruleRowOf(entry)});
  });
  return picture;
}

std::array<std::uint64_t, 2> versionsIn(const std::string& path) {
  try {
    const Drift::Directory directory(path, Drift::Directory::Access::read);
    return {versionIn<BigBbFamily>(directory), versionIn<TcamEntryFamily>(directory)};
  } catch (const Drift::MountException&) {
    return {};
  }
}

}  // namespace PolicyTest
