#include <benchmark/benchmark.h>
#include <lmdb.h>

#include <cstring>
#include <filesystem>
#include <random>

#include "Drift/DenseCollection.h"
#include "Drift/HashedCollection.h"
#include "Goals.h"

namespace {

using namespace Drift;

constexpr std::size_t kRecord = 552;
constexpr Word kRecords = 65536;

std::string directoryPath() {
  char path[] = "/dev/shm/bastil-bench.XXXXXX";
  return mkdtemp(path);
}

struct Table {
  std::string path = directoryPath();
  Directory directory{path, Directory::Access::write};
  std::unique_ptr<DriftFile> file = DriftFile::openForWriting(
      directory, "config", {Format::Layout::hashed, 4, kRecord, kRecords, "Bench", "records"}, {});
  HashedWriter writer{*file};
  std::vector<Word> keys;

  Table() {
    std::vector<Word> record(kRecord / 8, 7);
    for (Word key = 0; key < kRecords; ++key) {
      record[0] = key;
      writer.set(record);
      keys.push_back(key);
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
  }
  ~Table() { std::filesystem::remove_all(path); }
};

Table& table() {
  static Table one;
  return one;
}

void driftFind(benchmark::State& state) {
  Table& t = table();
  const auto file = DriftFile::openForReading(t.directory, "config", nullptr);
  const HashedView view(*file);
  std::vector<Word> out(kRecord / 8);
  std::size_t i = 0;
  for (auto _ : state) {
    const Word key = t.keys[i++ % kRecords];
    if (!view.find(std::span(&key, 1), out)) state.SkipWithError("lost");
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(driftFind);

void lmdbFind(benchmark::State& state) {
  const std::string path = directoryPath();
  MDB_env* env = nullptr;
  mdb_env_create(&env);
  mdb_env_set_mapsize(env, std::size_t{1} << 30);
  mdb_env_open(env, path.c_str(), MDB_NOSYNC, 0640);
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  mdb_txn_begin(env, nullptr, 0, &txn);
  mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi);
  std::vector<char> record(kRecord, 7);
  for (std::uint32_t key = 0; key < kRecords; ++key) {
    MDB_val k{sizeof key, &key};
    MDB_val v{kRecord, record.data()};
    mdb_put(txn, dbi, &k, &v, 0);
  }
  mdb_txn_commit(txn);
  mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
  mdb_txn_reset(txn);
  Table& t = table();
  std::size_t i = 0;
  std::vector<char> out(kRecord);
  for (auto _ : state) {
    auto key = static_cast<std::uint32_t>(t.keys[i++ % kRecords]);
    mdb_txn_renew(txn);
    MDB_val k{sizeof key, &key};
    MDB_val v;
    if (mdb_get(txn, dbi, &k, &v) != 0) state.SkipWithError("lost");
    std::memcpy(out.data(), v.mv_data, kRecord);
    mdb_txn_reset(txn);
    benchmark::DoNotOptimize(out.data());
  }
  mdb_txn_abort(txn);
  mdb_env_close(env);
  std::filesystem::remove_all(path);
}
BENCHMARK(lmdbFind);

void randomCopy(benchmark::State& state) {
  std::vector<char> memory(kRecord * kRecords, 1);
  std::vector<char> record(kRecord, 2);
  Table& t = table();
  std::size_t i = 0;
  for (auto _ : state) {
    std::memcpy(memory.data() + t.keys[i++ % kRecords] * kRecord, record.data(), kRecord);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(randomCopy);

void driftReplace(benchmark::State& state) {
  Table& t = table();
  std::vector<Word> record(kRecord / 8, 9);
  std::size_t i = 0;
  for (auto _ : state) {
    record[0] = t.keys[i++ % kRecords];
    t.writer.set(record);
  }
}
BENCHMARK(driftReplace);

void sequentialCopy(benchmark::State& state) {
  std::vector<char> memory(std::size_t{552} << 20, 1);
  std::vector<char> record(kRecord, 2);
  std::size_t i = 0;
  for (auto _ : state) {
    std::memcpy(memory.data() + i, record.data(), kRecord);
    i += kRecord;
    if (i + kRecord > memory.size()) i = 0;
    benchmark::ClobberMemory();
  }
}
BENCHMARK(sequentialCopy);

void driftAppend(benchmark::State& state) {
  const std::string path = directoryPath();
  {
    Directory directory{path, Directory::Access::write};
    const auto file = DriftFile::openForWriting(
        directory, "log", {Format::Layout::dense, 8, 548, 1000000, "Bench", "log"},
        {.reserveAll = state.range(0) != 0});
    DenseWriter writer(*file);
    std::vector<Word> record(69, 7);
    Word version = 0;
    const auto step = [&] {
      record[0] = ++version;
      writer.set(record);
      if (version > 1000) writer.remove(version - 1000);
    };
    if (state.range(0) == 2) {
      for (int i = 0; i < 1100000; ++i) step();
    }
    for (auto _ : state) step();
  }
  std::filesystem::remove_all(path);
}
BENCHMARK(driftAppend)->Arg(0);
BENCHMARK(driftAppend)->Arg(1)->Iterations(1000000);
BENCHMARK(driftAppend)->Arg(2);

void driftWalk(benchmark::State& state) {
  Table& t = table();
  std::vector<Word> out(kRecord / 8);
  for (auto _ : state) {
    WalkPosition position;
    Word key = 0;
    while (t.writer.view().next(position, std::span(&key, 1), out)) key = out[0];
  }
  state.SetItemsProcessed(state.iterations() * 65536);
}
BENCHMARK(driftWalk);

void driftTakeover(benchmark::State& state) {
  Table& t = table();
  for (auto _ : state) {
    HashedWriter again(*t.file);
    benchmark::DoNotOptimize(again.dropped());
  }
}
BENCHMARK(driftTakeover);

void touchHeaders(benchmark::State& state) {
  Table& t = table();
  for (auto _ : state) {
    Word sum = 0;
    for (const Word key : t.keys)
      sum += *t.file->words(t.file->header().slotsOffset + key * t.file->header().slotStride);
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(touchHeaders);

}  // namespace
