#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstring>

#include "Drift/Fixture.h"
#include "Goals.h"
#ifdef BASTIL_BENCH_LMDB
#include "Drift/LmdbPeer.h"
#endif
#ifdef BASTIL_BENCH_BOOST
#include <boost/interprocess/containers/map.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#endif

namespace {

using namespace Bench;
using Drift::Directory;
using Drift::DriftFile;

/// Replaces random keys of the collection at full speed.
std::function<void()> randomReplaces(const Directory& directory) {
  struct Writer {
    std::unique_ptr<DriftFile> file;
    Drift::HashedWriter writer;
    std::vector<Word> record = std::vector<Word>(kConfigWords, 9);
    RandomKeys keys;
    explicit Writer(const Directory& directory)
        : file(DriftFile::openForWriting(directory, "config", configGeometry(), {})),
          writer(*file) {}
  };
  auto writer = std::make_shared<Writer>(directory);
  if (writer->writer.view().size() == 0) fillConfig(writer->writer);
  return [writer] {
    writer->record[0] = writer->keys.next();
    writer->writer.set(writer->record);
  };
}

/// Look-up and copy of random keys in this process, with the writer in another one, idle or at full
/// speed.
void configFind(benchmark::State& state) {
  const bool busy = state.range(0) != 0;
  RandomKeys keys(static_cast<Word>(state.range(1)));
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  Companion writer([&] { return randomReplaces(directory); });
  const auto file = DriftFile::openForReading(directory, "config", nullptr);
  const Drift::HashedView view(*file);
  std::vector<Word> out(kConfigWords);
  for (const Word key : shuffledKeys()) view.find(std::span(&key, 1), out);
  writer.on(busy);
  const std::uint64_t before = writer.rounds();
  for (auto _ : state) {
    const Word key = keys.next();
    if (!view.find(std::span(&key, 1), out)) state.SkipWithError("a record was lost");
    benchmark::DoNotOptimize(out.data());
  }
  writer.on(false);
  state.counters["writes"] = static_cast<double>(writer.rounds() - before);
}
constexpr int kHotKeys = 1000;
BENCHMARK(configFind)
    ->ArgNames({"busy", "keys"})
    ->Args({0, kConfigRecords})
    ->Args({1, kConfigRecords})
    ->Args({0, kHotKeys});
const Goal kBusy("find + copy, writer at full speed / writer idle", "configFind/busy:1/keys:65536",
                 "configFind/busy:0/keys:65536", 1.15);

#ifdef BASTIL_BENCH_LMDB
void configFindLmdb(benchmark::State& state) {
  const ScratchDirectory scratch;
  Lmdb lmdb(scratch.path());
  lmdb.fill(kConfigRecords, kConfigRecord);
  Lmdb::Reader reader(lmdb);
  std::vector<char> out(kConfigRecord);
  RandomKeys keys(static_cast<Word>(state.range(0)));
  for (const Word key : shuffledKeys()) reader.find(key, out);
  for (auto _ : state) {
    if (!reader.find(keys.next(), out)) state.SkipWithError("a record was lost");
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(configFindLmdb)->ArgName("keys")->Arg(kConfigRecords)->Arg(kHotKeys);
const Goal kFind("find + copy of 552 bytes, random keys / LMDB renew, get, copy",
                 "configFind/busy:0/keys:65536", "configFindLmdb/keys:65536", 1.0 / 3.5);
const Goal kFindHot("find + copy of 552 bytes, 1,000 hot keys / LMDB renew, get, copy",
                    "configFind/busy:0/keys:1000", "configFindLmdb/keys:1000", 1.0 / 8);
#endif

#ifdef BASTIL_BENCH_BOOST
/// An ordered map in Boost's shared memory under a shared lock: the obvious alternative.
void configFindBoost(benchmark::State& state) {
  namespace ipc = boost::interprocess;
  struct Record {
    char bytes[kConfigRecord];
  };
  using Allocator = ipc::allocator<std::pair<const std::uint32_t, Record>,
                                   ipc::managed_shared_memory::segment_manager>;
  using Map = ipc::map<std::uint32_t, Record, std::less<>, Allocator>;
  const std::string name = "bastil-bench-" + std::to_string(::getpid());
  ipc::shared_memory_object::remove(name.c_str());
  {
    ipc::managed_shared_memory segment(ipc::create_only, name.c_str(), std::size_t{96} << 20);
    auto* const lock = segment.construct<ipc::interprocess_sharable_mutex>("lock")();
    auto* const map = segment.construct<Map>("map")(segment.get_segment_manager());
    for (const Word key : shuffledKeys()) map->emplace(static_cast<std::uint32_t>(key), Record{});
    Record out;
    RandomKeys keys;
    for (auto _ : state) {
      const ipc::sharable_lock<ipc::interprocess_sharable_mutex> guard(*lock);
      out = map->find(static_cast<std::uint32_t>(keys.next()))->second;
      benchmark::DoNotOptimize(&out);
    }
  }
  ipc::shared_memory_object::remove(name.c_str());
}
BENCHMARK(configFindBoost);
#endif

/// Floor of a write: copying 552 bytes to a random position within 36 MiB.
void configRandomCopy(benchmark::State& state) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  // A file of the same kind, so that both have pages of the same size.
  const auto file =
      DriftFile::openForWriting(directory, "config", configGeometry(), {.reserveAll = true});
  std::byte* const memory = file->data() + file->header().slotsOffset;
  std::vector<char> record(kConfigRecord, 2);
  RandomKeys keys;
  for (auto _ : state) {
    std::memcpy(memory + keys.next() * kConfigRecord, record.data(), kConfigRecord);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(configRandomCopy);

void configReplace(benchmark::State& state) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  const auto file = DriftFile::openForWriting(directory, "config", configGeometry(), {});
  Drift::HashedWriter writer(*file);
  fillConfig(writer);
  Companion reader([&] {
    std::shared_ptr<DriftFile> mine = DriftFile::openForReading(directory, "config", nullptr);
    auto view = std::make_shared<Drift::HashedView>(*mine);
    return [mine, view, keys = RandomKeys(), out = std::vector<Word>(kConfigWords)]() mutable {
      const Word key = keys.next();
      view->find(std::span(&key, 1), out);
    };
  });
  reader.on(true);
  std::vector<Word> record(kConfigWords, 9);
  RandomKeys keys;
  for (auto _ : state) {
    record[0] = keys.next();
    writer.set(record);
  }
  state.counters["reads"] = static_cast<double>(reader.rounds());
}
BENCHMARK(configReplace);
const Goal kReplace("replace with a live reader / random copy of 552 bytes over 36 MiB",
                    "configReplace", "configRandomCopy", 2.5);

/// Walk over all records, copying each.
void configWalk(benchmark::State& state) {
  const ScratchDirectory scratch;
  const Directory directory(scratch.path(), Directory::Access::write);
  const auto file = DriftFile::openForWriting(directory, "config", configGeometry(), {});
  Drift::HashedWriter writer(*file);
  fillConfig(writer);
  std::vector<Word> out(kConfigWords);
  for (auto _ : state) {
    Drift::WalkPosition position;
    Word key = 0;
    Word count = 0;
    for (; writer.view().next(position, std::span(&key, 1), out); ++count) key = out[0] & 0xffff;
    if (count != kConfigRecords) state.SkipWithError("a record was lost");
  }
}
BENCHMARK(configWalk)->Unit(benchmark::kMillisecond);

/// Shared memory per record, with bytes reported as nanoseconds.
void configBytes(benchmark::State& state) {
  for (auto _ : state) {
    const ScratchDirectory scratch;
    const Directory directory(scratch.path(), Directory::Access::write);
    const auto file = DriftFile::openForWriting(directory, "config", configGeometry(), {});
    Drift::HashedWriter writer(*file);
    fillConfig(writer);
    struct stat facts {};
    ::stat(file->path().c_str(), &facts);
    state.SetIterationTime(static_cast<double>(facts.st_blocks) * 512 / kConfigRecords * 1e-9);
  }
}
BENCHMARK(configBytes)->UseManualTime()->Iterations(1);
void configBytesOfRecord(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(kConfigRecord * 1e-9);
}
BENCHMARK(configBytesOfRecord)->UseManualTime()->Iterations(1);
const Goal kBytes("shared bytes per configuration record / 552", "configBytes",
                  "configBytesOfRecord", 1.06);

}  // namespace
