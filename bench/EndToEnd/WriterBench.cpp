// Agent and hardware writer as two processes, each on its own core.
#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <atomic>

#include "Drift/LogFollower.h"
#include "Goals.h"
#include "OrderedTable/TableFixture.h"

namespace {

using namespace Bench;
using Constants = TcamFamily::Constants;

void relax() { __builtin_ia32_pause(); }

/// Follows the log and reports what it has read.
class Follower {
 public:
  explicit Follower(const std::string& path)
      : directory_(path, Drift::Directory::Access::read),
        file_(Drift::DriftFile::openForReading(
            directory_, Constants::tableEntryLogDriftPath().view(), nullptr)),
        reporter_(path, Constants::canonicalGroupName()) {}

  void look() {
    while (log_.read(record_) == Drift::DenseRead::found) benchmark::DoNotOptimize(&record_);
    const Word version = log_.position() - 1;
    if (version != reported_) reporter_.report(TcamFamily::kTableId, reported_ = version);
    relax();
  }

 private:
  Drift::Directory directory_;
  std::unique_ptr<Drift::DriftFile> file_;
  Support::ReporterRig reporter_;
  Drift::LogFollower<TcamFamily::LogDriftEntry> log_{*file_, 1};
  TcamFamily::LogDriftEntry record_;
  Word reported_ = 0;
};

/// A table with all keys configured and acknowledged, and a hardware writer process.
class ServedTable {
 public:
  ServedTable()
      : agent_(scratch_.path()),
        rig_(agent_),
        table_(rig_.table(0)),
        writer_([path = scratch_.path()] {
          return [follower = std::make_shared<Follower>(path)] { follower->look(); };
        }) {
    writer_.on(true);
    for (Word i = 0; i < kConfigRecords; ++i) write(256);
    await(0);
  }

  /// Queues one operation, with at most `window` in flight. A full window is refilled when a
  /// quarter of it has been acknowledged, as the agent does: committing each operation separately
  /// would ring for each.
  void write(Word window) {
    entry_.hopLimit = static_cast<std::uint8_t>(asked_);
    table_->entryWriteWithResponseHandler(tcamKey(shuffledKeys()[asked_ % kConfigRecords]), entry_,
                                          nullptr, handler_);
    ++asked_;
    if (asked_ - acknowledged_ >= window) await(window - window / 4 - 1);
  }
  void await(Word inFlight) {
    while (asked_ - acknowledged_ > inFlight) agent_.tables().pump(kBatch);
  }

 private:
  ScratchDirectory scratch_;
  Support::AgentRig agent_;
  Support::TableRig<TcamFamily> rig_;
  Fenrik::Ptr<TcamFamily::SwTable> table_;
  Companion writer_;
  TcamEntry entry_;
  Word asked_ = 0;
  Word acknowledged_ = 0;
  Asic::ResponseHandler handler_ = [this](const auto&) { ++acknowledged_; };
};

/// As many operations per iteration as the floor has.
void servedWrite(benchmark::State& state) {
  ServedTable served;
  for (auto _ : state) {
    for (unsigned i = 0; i < kBatch; ++i) served.write(256);
  }
}
BENCHMARK(servedWrite)->UseRealTime();
const Goal kServed("a write with the writer's process on the other core, window 256 / its floor",
                   "servedWrite", "tableFloor", 3.5);

/// From the call to the handler, with nothing else in flight.
void servedRoundTrip(benchmark::State& state) {
  ServedTable served;
  for (auto _ : state) served.write(1);
}
BENCHMARK(servedRoundTrip)->UseRealTime();

/// Two round trips of one word between two cores, plus five times the stores of a write.
void twoRoundTripsAndFiveFloors(benchmark::State& state) {
  void* const memory =
      ::mmap(nullptr, sizeof(Word) * 2, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return state.SkipWithError("no memory");
  {
    auto& word = *new (memory) std::atomic<Word>(0);
    // Odd numbers are questions.
    Companion other([&word] {
      return [&word] {
        const Word seen = word.load(std::memory_order_acquire);
        if (seen % 2 == 1) word.store(seen + 1, std::memory_order_release);
        relax();
      };
    });
    other.on(true);
    Floor<kConfigRecord> floor;
    Word question = 1;
    for (auto _ : state) {
      for (int trip = 0; trip < 2; ++trip) {
        word.store(question, std::memory_order_release);
        while (word.load(std::memory_order_acquire) != question + 1) relax();
        question += 2;
      }
      for (int i = 0; i < 5; ++i) floor.operation();
    }
  }
  ::munmap(memory, sizeof(Word) * 2);
}
BENCHMARK(twoRoundTripsAndFiveFloors)->UseRealTime();
const Goal kRoundTrip("from a write's call to its handler / two round trips and five floors",
                      "servedRoundTrip", "twoRoundTripsAndFiveFloors", 1.0);

}  // namespace
