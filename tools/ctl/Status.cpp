#include "ctl/Picture.h"

namespace Ctl {
namespace {

constexpr const char* kHead =
    "table               unit  live deleting     issued  announced   reported     lag";

std::string rowOf(const TablePicture& table, const UnitPicture* unit) {
  const std::string ofUnit =
      unit == nullptr ? fmt::format("{:>4} {:>5} {:>8}", "-", "-", "-")
                      : fmt::format("{:>4} {:>5} {:>8}", unit->unit, unit->live, unit->inDeletion);
  return fmt::format("{:<19} {} {:>10} {:>10} {:>10} {:>7}", table.kind->name, ofUnit, table.issued,
                     table.announced, table.reported, table.lag());
}

std::string textOf(const Picture& picture) {
  std::string text = kHead;
  for (const TablePicture& table : picture.tables) {
    if (table.units.empty()) text += '\n' + rowOf(table, nullptr);
    for (const UnitPicture& unit : table.units) text += '\n' + rowOf(table, &unit);
  }
  for (const TablePicture& table : picture.tables) {
    text += fmt::format("\n{}: log of {} of {} records, taken over {} times\n  agent: {} {}",
                        table.kind->name, table.logged, table.logCapacity,
                        table.generation == 0 ? 0 : table.generation - 1,
                        table.agentAlive ? "process" : "dead, it was process", table.agent);
    text += fmt::format("; hardware writer: {}", table.writerAlive ? "at work" : "dead");
    const std::string wait = waitOf(table);
    if (!wait.empty()) text += "\n  " + wait;
  }
  for (const std::string& wait : picture.waits) text += '\n' + wait;
  return text;
}

}  // namespace

int status(const Context& context) {
  const Picture picture = pictureOf(context.directory, true);
  context.line(context.json ? jsonOf(picture).dump() : textOf(picture));
  for (const std::string& problem : picture.problems) context.say(problem);
  return picture.problems.empty() ? kFine : kFinding;
}

}  // namespace Ctl
