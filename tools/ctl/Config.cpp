#include "ctl/Values.h"

namespace Ctl {
namespace {

void show(const Context& context, const TableKind& kind, const Tables::ConfigRow& row) {
  if (!context.json) {
    return context.line(fmt::format("{} at version {}{}", kind.entry.text(row.entry.data()),
                                    row.version, row.isDeleted ? ", in deletion" : ""));
  }
  const Json line{{"key", jsonOf(kind.key, row.entry.data())},
                  {"entry", jsonOf(kind.entry, row.entry.data())},
                  {"version", row.version},
                  {"isDeleted", row.isDeleted}};
  context.line(line.dump());
}

}  // namespace

int config(const Context& context, const ConfigRequest& request) {
  const TableKind& kind = tableOf(request.table);
  const auto key = request.key.empty() ? std::vector<Word>() : keyOf(kind, request.key);
  const Tables::Config config(context.directory, kind, Asic::UnitId(request.unit));
  int result = kFine;
  if (key.empty()) {
    config.walk([&](const Tables::ConfigRow& row) { show(context, kind, row); },
                [&](const std::string& damage) {
                  context.say(damage);
                  result = kFinding;
                });
    return result;
  }
  if (const auto row = config.find(key)) {
    show(context, kind, *row);
    return kFine;
  }
  context.say(fmt::format("{} unit {} has no entry {}", kind.name, request.unit,
                          kind.key.text(key.data())));
  return kFinding;
}

}  // namespace Ctl
