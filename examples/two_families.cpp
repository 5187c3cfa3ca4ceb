// An agent that brings up two families on two units and runs their loop. If it is killed, the next
// start continues from the stored tables. Usage: two_families DIRECTORY ENTRIES
#include <cstdio>
#include <cstdlib>

#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"

using namespace QuarnBastil;

namespace {

Fenrik::Ptr<Asic::OrderedTableInterface> tables;

/// Brings up one family on both units, prints what was found there, and writes the missing entries.
template <class Interface, class Entry>
void bringUp(unsigned entries, auto keyOf) {
  const auto interface = Interface::getIntf(tables);
  for (std::uint16_t unit = 0; unit < 2; ++unit) {
    const auto table = interface->makeSwTable(Asic::UnitId(unit), nullptr, false);
    std::printf("%s unit %u: %u entries at version %llu\n", interface->tableName().data(), unit,
                table->entrys(),
                static_cast<unsigned long long>(table->entryLog()->tableVersion().value()));
    for (unsigned i = 0; i < entries; ++i) {
      const auto key = keyOf(i);
      if (!table->entryHas(key)) table->entryWrite(key, Entry(key), nullptr);
    }
  }
  interface->reconcile();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: two_families DIRECTORY ENTRIES\n"), 2;
  const auto entries = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
  try {
    [[maybe_unused]] const auto memory = Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(
        "agent", argv[1], Drift::Directory::Access::write);
    tables =
        Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(Fenrik::ptrIsImpl<Stavro::EntityManager>(
            "agent", true, argv[1], Drift::Directory::Access::write));
    bringUp<TcamEntryInterface, TcamEntryEntry>(
        entries, [](unsigned i) { return TcamEntryEntryKey(0, static_cast<std::uint16_t>(i)); });
    bringUp<BigBbInterface, BigBbFamily::Entry>(
        entries, [](unsigned i) { return BigBbFamily::Key(i << 8, 24); });
    std::printf("serving\n");
    std::fflush(stdout);
    for (;;) {
      while (tables->pump(1000).more) continue;
      tables->waitForReport(std::chrono::seconds(1));
    }
  } catch (const Fenrik::Exception& e) {
    std::fprintf(stderr, "two_families: %s\n", e.what());
    return 1;
  }
}
