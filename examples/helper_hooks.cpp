// A helper that takes part in a table's commits: it completes written entries, and refuses some of
// them. Usage: helper_hooks DIRECTORY
#include <cstdio>
#include <stdexcept>

#include "Fenrik/TypeData.h"
#include "QuarnBastil/TcamEntry.h"

using namespace QuarnBastil;

namespace {

/// Sets the number of hardware rows that each entry takes. Clients must not write to bank 7.
class RowCounter final : public Fenrik::NodeClass<RowCounter, TcamEntrySwTableHelperBase> {
 public:
  using KivModule = Kiv::Module<"HelperHooksExample", RowCounter>;

  void finalizeOnSuccess(const Fenrik::Ptr<TcamEntryEntryWrapper>& wrapper, bool isDelete,
                         const Fenrik::Ptr<TcamEntrySwTable>& /*table*/) override {
    if (isDelete) return;
    if (wrapper->key().bank == 7) throw std::runtime_error("bank 7 is not for clients");
    wrapper->mutableEntry().slices = wrapper->entry().sourcePrefix.present ? 2 : 1;
  }
};

const char* nameOf(Asic::EntryState state) {
  switch (state) {
    case Asic::EntryState::entryInLog:
      return "in the log";
    case Asic::EntryState::entryRejected:
      return "rejected";
    default:
      return "neither";
  }
}

}  // namespace

// Inspection shows the class by its name.
KIV_LOCAL_MODULE(RowCounter::KivModule);

int main(int argc, char** argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: helper_hooks DIRECTORY\n"), 2;
  const auto memory = Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(
      "agent", argv[1], Drift::Directory::Access::write);
  const auto tables =
      Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(Fenrik::ptrIsImpl<Stavro::EntityManager>(
          "agent", true, argv[1], Drift::Directory::Access::write));
  const auto table = TcamEntryInterface::getIntf(tables)->makeSwTable(
      Asic::UnitId(0), Fenrik::ptrIsImpl<RowCounter>(), false);

  const Asic::ResponseHandler tell = [](const auto& handle) {
    std::printf("the handler hears: %s\n", handle->rejection().data());
  };
  const TcamEntryEntryKey good(0, 1);
  const TcamEntryEntryKey bad(7, 1);
  TcamEntryEntry entry(good);
  entry.sourcePrefix = OptionalPrefix({10}, 0, 8);
  const auto refused =
      table->entryWriteWithResponseHandler(bad, TcamEntryEntry(bad), nullptr, tell);
  const auto written = table->entryWrite(good, entry, nullptr);

  for (bool more = true; more;) {
    try {
      more = tables->pump(100).more;
    } catch (const std::runtime_error& e) {
      std::printf("the pump's caller hears: %s\n", e.what());
    }
  }
  std::printf("bank 7: %s; bank 0: %s, %u rows\n", nameOf(refused->entryState()),
              nameOf(written->entryState()), table->entryRead(good).slices);
}
