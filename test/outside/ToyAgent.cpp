#include <fmt/core.h>

#include "ToyFamily.h"

// An agent with a table that no program of the project knows.
int main(int, char** argv) {
  const auto memory = Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(
      "agent", argv[1], Drift::Directory::Access::write);
  const auto state = Fenrik::ptrIsImpl<Stavro::EntityManager>("agent", true, argv[1],
                                                              Drift::Directory::Access::write);
  const auto tables = Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(state);
  const auto table =
      Toy::ToyInterface::getIntf(tables)->makeSwTable(Asic::UnitId(2), nullptr, false);
  for (const unsigned number : {7U, 8U}) {
    Toy::Entry entry{Toy::Key(number)};
    entry.value = 10 * number;
    table->entryWrite(entry.key, entry, nullptr);
  }
  while (tables->pump(1).more) continue;
  fmt::print("{} toys\n", table->entrys());
}
