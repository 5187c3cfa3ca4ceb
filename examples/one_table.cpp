// One table in real shared memory: a write that depends on another one, a report of the hardware,
// and the response handlers. Usage: one_table DIRECTORY
#include <cstdio>

#include "OrderedTable/TableVersionDrift.h"
#include "QuarnBastil/TcamEntry.h"

using namespace QuarnBastil;

int main(int argc, char** argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: one_table DIRECTORY\n"), 2;
  const auto memory = Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(
      "agent", argv[1], Drift::Directory::Access::write);
  const auto state = Fenrik::ptrIsImpl<Stavro::EntityManager>("agent", true, argv[1],
                                                              Drift::Directory::Access::write);
  const auto tables = Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(state);
  const auto table =
      TcamEntryInterface::getIntf(tables)->makeSwTable(Asic::UnitId(0), nullptr, false);

  const Asic::ResponseHandler tell = [](const auto& handle) {
    std::printf("version %llu is in hardware\n",
                static_cast<unsigned long long>(handle->logVersion().value()));
  };
  const TcamEntryEntryKey first(0, 1);
  const TcamEntryEntryKey second(0, 2);
  const auto handle =
      table->entryWriteWithResponseHandler(first, TcamEntryEntry(first), nullptr, tell);
  table->entryWriteWithResponseHandler(second, TcamEntryEntry(second), handle, tell);
  std::printf("%u entries are seen at once\n", table->entrys());
  while (tables->pump(100).more) continue;

  // What the hardware writer, another process, does when it has programmed both.
  const auto report =
      Asic::TableVersionDrift::mounted(memory, TcamEntryConstants::canonicalGroupName());
  report->tableVersionIs(
      Asic::TableVersion(TcamEntryInterface::tableId(), table->entryLog()->tableVersion()));
  report->ring();
  tables->waitForReport(std::chrono::seconds(1));
  tables->pump(100);
}
