#include <chrono>
#include <cstdio>
#include <thread>

#include "ctl/Picture.h"

namespace Ctl {
namespace {

constexpr const char* kHead =
    "table         unit       live   deleting   capacity      issued   announced    reported       "
    "  "
    "lag";

std::string rowOf(const TablePicture& table, const UnitPicture* unit) {
  const std::string ofUnit = unit == nullptr
                                 ? fmt::format("{:>4} {:>10} {:>10} {:>10}", "-", "-", "-", "-")
                                 : fmt::format("{:>4} {:>10} {:>10} {:>10}", unit->unit, unit->live,
                                               unit->inDeletion, unit->capacity);
  return fmt::format("{:<13} {} {:>11} {:>11} {:>11} {:>11}", table.kind->name, ofUnit,
                     table.issued, table.announced, table.reported, table.lag());
}

std::string textOf(const Picture& picture) {
  std::string text = kHead;
  for (const TablePicture& table : picture.tables) {
    if (table.units.empty()) text += '\n' + rowOf(table, nullptr);
    for (const UnitPicture& unit : table.units) text += '\n' + rowOf(table, &unit);
  }
  for (const TablePicture& table : picture.tables) {
    text += fmt::format("\n{}: log of {} of {} records, written by process {}, taken over {} times",
                        table.kind->name, table.logged, table.logCapacity, table.writer,
                        table.generation == 0 ? 0 : table.generation - 1);
  }
  return text;
}

Json jsonOf(const Picture& picture) {
  Json tables = Json::array();
  for (const TablePicture& table : picture.tables) {
    Json units = Json::array();
    for (const UnitPicture& unit : table.units) {
      units.push_back({{"unit", unit.unit.value()},
                       {"live", unit.live},
                       {"inDeletion", unit.inDeletion},
                       {"capacity", unit.capacity}});
    }
    tables.push_back({{"table", table.kind->name},
                      {"issued", table.issued},
                      {"announced", table.announced},
                      {"reported", table.reported},
                      {"lag", table.lag()},
                      {"logged", table.logged},
                      {"logCapacity", table.logCapacity},
                      {"writer", table.writer},
                      {"generation", table.generation},
                      {"units", units}});
  }
  return {{"tables", tables}, {"problems", picture.problems}};
}

int show(const Context& context) {
  const Picture picture = pictureOf(context.directory);
  context.line(context.json ? jsonOf(picture).dump() : textOf(picture));
  for (const std::string& problem : picture.problems) context.say(problem);
  return picture.problems.empty() ? kFine : kFinding;
}

}  // namespace

int status(const Context& context, const StatusRequest& request) {
  if (!request.live || request.once) return show(context);
  constexpr const char* kClear = "\x1b[H\x1b[2J";
  int result = kFine;
  while (context.stop == 0) {
    if (!context.json) std::fputs(kClear, stdout);
    result = show(context);
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  return result;
}

}  // namespace Ctl
