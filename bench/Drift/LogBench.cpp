#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstring>

#include "Drift/Fixture.h"
#include "Goals.h"
#ifdef BASTIL_BENCH_LMDB
#include "Drift/LmdbPeer.h"
#endif

namespace {

using namespace Bench;
using Drift::Directory;
using Drift::DriftFile;

void fillLog(Drift::DenseWriter& writer, Word records) {
  std::vector<Word> record(kLogWords, 7);
  for (Word version = writer.next(), end = version + records; version < end; ++version) {
    record[0] = version;
    writer.set(record);
  }
}

/// Floor of an append: copying 548 bytes sequentially into a region of the log's size, with its
/// memory reserved or allocated on demand.
void logSequentialCopy(benchmark::State& state, bool reserveAll) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  const auto file =
      DriftFile::openForWriting(directory, "log", logGeometry(), {.reserveAll = reserveAll});
  std::byte* const memory = file->data() + file->header().slotsOffset;
  const std::size_t size = file->header().fileSize - file->header().slotsOffset;
  std::vector<char> record(kLogRecord, 2);
  std::size_t at = 0;
  for (auto _ : state) {
    std::memcpy(memory + at, record.data(), kLogRecord);
    at = at + 2 * kLogRecord > size ? 0 : at + kLogRecord;
    benchmark::ClobberMemory();
  }
}
BENCHMARK_CAPTURE(logSequentialCopy, there, true);
BENCHMARK_CAPTURE(logSequentialCopy, onDemand, false)->Iterations(1'000'000);

/// Appends a record; the log is emptied twice per lap. With reserved memory, measures the first lap
/// or a later one; without, memory is allocated and freed.
void logAppend(benchmark::State& state, bool reserveAll, bool warm) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  const auto file =
      DriftFile::openForWriting(directory, "log", logGeometry(), {.reserveAll = reserveAll});
  Drift::DenseWriter writer(*file);
  std::vector<Word> record(kLogWords, 7);
  const auto step = [&] {
    record[0] = writer.next();
    writer.set(record);
    if (record[0] % 500'000 == 0) writer.removeAll();
  };
  for (Word i = 0; warm && i < file->header().slotCount; ++i) step();
  for (auto _ : state) step();
}
BENCHMARK_CAPTURE(logAppend, warm, true, true);
BENCHMARK_CAPTURE(logAppend, firstLap, true, false)->Iterations(1'000'000);
BENCHMARK_CAPTURE(logAppend, onDemand, false, false)->Iterations(1'000'000);
const Goal kAppend("log append, warm / sequential copy of 548 bytes", "logAppend/warm",
                   "logSequentialCopy/there", 1.5);
const Goal kFirstLap("log append, first lap reserved ahead / warm lap", "logAppend/firstLap",
                     "logAppend/warm", 1.3);
const Goal kOnDemand("log append / sequential copy, both on memory that comes on demand",
                     "logAppend/onDemand", "logSequentialCopy/onDemand", 1.5);

/// A successor mounts a configuration of 65,536 records and a log of the given length.
void takeover(benchmark::State& state) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  {
    const auto config = DriftFile::openForWriting(directory, "config", configGeometry(), {});
    Drift::HashedWriter writer(*config);
    fillConfig(writer);
    const auto log = DriftFile::openForWriting(directory, "log", logGeometry(), {});
    Drift::DenseWriter logWriter(*log);
    fillLog(logWriter, static_cast<Word>(state.range(0)));
  }
  for (auto _ : state) {
    const auto config = DriftFile::openForWriting(directory, "config", configGeometry(), {});
    Drift::HashedWriter writer(*config);
    const auto log = DriftFile::openForWriting(directory, "log", logGeometry(), {});
    Drift::DenseWriter logWriter(*log);
    if (writer.view().size() != kConfigRecords) state.SkipWithError("a record was lost");
    benchmark::DoNotOptimize(logWriter.next());
  }
}
BENCHMARK(takeover)->Arg(10'000)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);

/// Floor of a takeover: mapping the file and touching the header of each record once.
void touchHeaders(benchmark::State& state) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  {
    const auto config = DriftFile::openForWriting(directory, "config", configGeometry(), {});
    Drift::HashedWriter writer(*config);
    fillConfig(writer);
  }
  for (auto _ : state) {
    const auto file = DriftFile::openForWriting(directory, "config", configGeometry(), {});
    Word sum = 0;
    for (Word slot = 0; slot < kConfigRecords; ++slot) {
      sum += *file->words(file->header().slotsOffset + slot * file->header().slotStride);
    }
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(touchHeaders)->Unit(benchmark::kMicrosecond);
const Goal kTakeover("takeover beside 1,000,000 log records / touching 65,536 headers",
                     "takeover/1000000", "touchHeaders", 2.5);
const Goal kTakeoverShort("takeover beside 10,000 log records / touching 65,536 headers",
                          "takeover/10000", "touchHeaders", 2.5);

/// A read-only process walks the whole log, copying each record.
void logWalk(benchmark::State& state) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  Companion writer([&] {
    std::shared_ptr<DriftFile> file =
        DriftFile::openForWriting(directory, "log", logGeometry(), {});
    auto log = std::make_shared<Drift::DenseWriter>(*file);
    fillLog(*log, kLogRecords);
    return [file, log] {};
  });
  const auto file = DriftFile::openForReading(directory, "log", nullptr);
  const Drift::DenseView view(*file);
  std::vector<Word> out(kLogWords);
  for (auto _ : state) {
    Word count = 0;
    for (Word version = 0; view.findFrom(version, out); ++version) ++count;
    if (count != kLogRecords) state.SkipWithError("a record was lost");
  }
}
BENCHMARK(logWalk)->Unit(benchmark::kMillisecond);

#ifdef BASTIL_BENCH_LMDB
void logWalkLmdb(benchmark::State& state) {
  const ScratchDirectory scratch;
  Lmdb lmdb(scratch.path());
  lmdb.fill(kLogRecords, kLogRecord);
  Lmdb::Reader reader(lmdb);
  std::vector<char> out(kLogRecord);
  for (auto _ : state) {
    if (reader.walk(out) != kLogRecords) state.SkipWithError("a record was lost");
  }
}
BENCHMARK(logWalkLmdb)->Unit(benchmark::kMillisecond);
const Goal kWalk("walk of a log of 1,000,000 in another process / LMDB cursor", "logWalk",
                 "logWalkLmdb", 0.7);
#endif

/// Shared memory per record, with bytes reported as nanoseconds.
void logBytes(benchmark::State& state) {
  for (auto _ : state) {
    const ScratchDirectory scratch;
    const Directory directory(scratch.path(), Directory::Access::write);
    const auto file = DriftFile::openForWriting(directory, "log", logGeometry(), {});
    Drift::DenseWriter writer(*file);
    fillLog(writer, kLogRecords);
    struct stat facts {};
    ::stat(file->path().c_str(), &facts);
    state.SetIterationTime(static_cast<double>(facts.st_blocks) * 512 / kLogRecords * 1e-9);
  }
}
BENCHMARK(logBytes)->UseManualTime()->Iterations(1);
void logBytesOfRecord(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(kLogRecord * 1e-9);
}
BENCHMARK(logBytesOfRecord)->UseManualTime()->Iterations(1);
const Goal kBytes("shared bytes per log record / 548", "logBytes", "logBytesOfRecord", 1.06);

}  // namespace
