// Alternatives available as packages: the same records, 552 bytes stored under the key and 552
// appended under the version. None of them syncs to disk, and their files are in memory.
#include <benchmark/benchmark.h>

#include "Goals.h"
#include "OrderedTable/Must.h"
#include "OrderedTable/TableFixture.h"
#ifdef BASTIL_BENCH_LMDB
#include <lmdb.h>
#endif
#ifdef BASTIL_BENCH_SQLITE
#include <sqlite3.h>
#endif
#ifdef BASTIL_BENCH_ROCKSDB
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>
#endif
#ifdef BASTIL_BENCH_HIREDIS
#include "OrderedTable/RedisPeer.h"
#endif

namespace {

using namespace Bench;

/// Runs batches of `kBatch` operations, passing each its key and version.
template <class Store>
void cycles(benchmark::State& state, Store& store) {
  Word version = 1;
  for (const Word key : shuffledKeys()) store.operation(key, version++);
  store.end();
  Word at = 0;
  for (auto _ : state) {
    for (unsigned i = 0; i < kBatch; ++i) {
      store.operation(shuffledKeys()[at++ % kConfigRecords], version++);
    }
    store.end();
  }
}

#ifdef BASTIL_BENCH_LMDB
class LmdbStore {
 public:
  /// `perTransaction` operations share a transaction.
  LmdbStore(const std::string& path, unsigned perTransaction) : perTransaction_(perTransaction) {
    must(mdb_env_create(&env_) == 0, "mdb_env_create");
    mdb_env_set_mapsize(env_, std::size_t{8} << 30);
    mdb_env_set_maxdbs(env_, 2);
    must(mdb_env_open(env_, path.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0640) == 0, "mdb_env_open");
    begin();
    must(mdb_dbi_open(txn_, "config", MDB_CREATE | MDB_INTEGERKEY, &config_) == 0, "mdb_dbi_open");
    must(mdb_dbi_open(txn_, "log", MDB_CREATE | MDB_INTEGERKEY, &log_) == 0, "mdb_dbi_open");
    end();
  }
  ~LmdbStore() { mdb_env_close(env_); }
  LmdbStore(const LmdbStore&) = delete;
  LmdbStore& operator=(const LmdbStore&) = delete;

  void operation(Word key, Word version) {
    begin();
    put(config_, key, 0);
    put(log_, version, MDB_APPEND);
    // Deletes what the hardware has acknowledged, one batch later.
    if (version > kKept) {
      Word old = version - kKept;
      MDB_val k{sizeof old, &old};
      mdb_del(txn_, log_, &k, nullptr);
    }
    if (++inTransaction_ == perTransaction_) end();
  }
  void end() {
    if (txn_ == nullptr) return;
    must(mdb_txn_commit(txn_) == 0, "mdb_txn_commit");
    txn_ = nullptr;
    inTransaction_ = 0;
  }

 private:
  static constexpr Word kKept = kLogRecords / 10;

  void begin() {
    if (txn_ == nullptr) must(mdb_txn_begin(env_, nullptr, 0, &txn_) == 0, "mdb_txn_begin");
  }
  void put(MDB_dbi dbi, Word key, unsigned flags) {
    MDB_val k{sizeof key, &key};
    MDB_val v{record_.size(), record_.data()};
    must(mdb_put(txn_, dbi, &k, &v, flags) == 0, "mdb_put");
  }

  unsigned perTransaction_;
  unsigned inTransaction_ = 0;
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi config_ = 0;
  MDB_dbi log_ = 0;
  std::vector<char> record_ = std::vector<char>(kConfigRecord, 3);
};

void tablePeerLmdb(benchmark::State& state) {
  const ScratchDirectory scratch;
  LmdbStore store(scratch.path(), static_cast<unsigned>(state.range(0)));
  cycles(state, store);
}
BENCHMARK(tablePeerLmdb)->ArgName("per_txn")->Arg(1)->Arg(kBatch)->Unit(benchmark::kMicrosecond);

/// Reads the newest record of the log, as a hardware writer would.
class LmdbReader {
 public:
  explicit LmdbReader(const std::string& path) {
    must(mdb_env_create(&env_) == 0, "mdb_env_create");
    mdb_env_set_mapsize(env_, std::size_t{8} << 30);
    mdb_env_set_maxdbs(env_, 2);
    must(mdb_env_open(env_, path.c_str(), MDB_RDONLY, 0640) == 0, "mdb_env_open");
    must(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_) == 0, "mdb_txn_begin");
    must(mdb_dbi_open(txn_, "log", MDB_INTEGERKEY, &log_) == 0, "mdb_dbi_open");
    must(mdb_cursor_open(txn_, log_, &cursor_) == 0, "mdb_cursor_open");
  }
  void look() {
    mdb_txn_reset(txn_);
    must(mdb_txn_renew(txn_) == 0, "mdb_txn_renew");
    mdb_cursor_renew(txn_, cursor_);
    MDB_val key{};
    MDB_val value{};
    if (mdb_cursor_get(cursor_, &key, &value, MDB_LAST) != 0) return;
    std::memcpy(copy_.data(), value.mv_data, value.mv_size);
    benchmark::DoNotOptimize(copy_.data());
  }

 private:
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi log_ = 0;
  MDB_cursor* cursor_ = nullptr;
  std::vector<char> copy_ = std::vector<char>(kConfigRecord);
};

void tablePeerLmdbServed(benchmark::State& state) {
  const ScratchDirectory scratch;
  { const LmdbStore made(scratch.path(), 1); }
  Companion reader(
      [&] { return [reader = std::make_shared<LmdbReader>(scratch.path())] { reader->look(); }; });
  reader.on(true);
  LmdbStore store(scratch.path(), 1);
  cycles(state, store);
}
BENCHMARK(tablePeerLmdbServed)->UseRealTime()->Unit(benchmark::kMicrosecond);
const Goal kServed(
    "a write with the writer's process beside it / two puts a transaction of LMDB, with a reader",
    "servedWrite", "tablePeerLmdbServed", 1.0 / 8);
const Goal kLmdb("a table's cycle / two puts a transaction of LMDB",
                 "tableCycle/keys:65536/fill:10", "tablePeerLmdb/per_txn:1", 1.0 / 6);
const Goal kLmdbBatch("a table's cycle / 100 operations a transaction of LMDB",
                      "tableCycle/keys:65536/fill:10", "tablePeerLmdb/per_txn:100", 1.0 / 3.5);
#endif

#ifdef BASTIL_BENCH_SQLITE
class SqliteStore {
 public:
  explicit SqliteStore(const std::string& path) {
    must(sqlite3_open((path + "/tables").c_str(), &db_) == SQLITE_OK, "sqlite3_open");
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=OFF");
    run("CREATE TABLE config(key INTEGER PRIMARY KEY, record BLOB)");
    run("CREATE TABLE log(version INTEGER PRIMARY KEY, record BLOB)");
    config_ = prepared("INSERT OR REPLACE INTO config VALUES(?, ?)");
    log_ = prepared("INSERT INTO log VALUES(?, ?)");
  }
  ~SqliteStore() {
    sqlite3_finalize(config_);
    sqlite3_finalize(log_);
    sqlite3_close(db_);
  }
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  void operation(Word key, Word version) {
    if (!open_) run("BEGIN");
    open_ = true;
    step(config_, key);
    step(log_, version);
  }
  void end() {
    run("COMMIT");
    open_ = false;
  }

 private:
  void run(const char* sql) {
    must(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
  }
  sqlite3_stmt* prepared(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    must(sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
    return statement;
  }
  void step(sqlite3_stmt* statement, Word number) {
    sqlite3_bind_int64(statement, 1, static_cast<sqlite3_int64>(number));
    sqlite3_bind_blob(statement, 2, record_.data(), static_cast<int>(record_.size()),
                      SQLITE_STATIC);
    must(sqlite3_step(statement) == SQLITE_DONE, "sqlite3_step");
    sqlite3_reset(statement);
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* config_ = nullptr;
  sqlite3_stmt* log_ = nullptr;
  bool open_ = false;
  std::vector<char> record_ = std::vector<char>(kConfigRecord, 3);
};

void tablePeerSqlite(benchmark::State& state) {
  const ScratchDirectory scratch;
  SqliteStore store(scratch.path());
  cycles(state, store);
}
BENCHMARK(tablePeerSqlite)->Unit(benchmark::kMicrosecond);
#endif

#ifdef BASTIL_BENCH_ROCKSDB
class RocksStore {
 public:
  explicit RocksStore(const std::string& path) {
    rocksdb::Options options;
    options.create_if_missing = true;
    rocksdb::DB* db = nullptr;
    must(rocksdb::DB::Open(options, path + "/tables", &db).ok(), "rocksdb::DB::Open");
    db_.reset(db);
  }

  void operation(Word key, Word version) {
    batch_.Put(keyOf('c', key), record_);
    batch_.Put(keyOf('l', version), record_);
  }
  void end() {
    must(db_->Write(rocksdb::WriteOptions(), &batch_).ok(), "rocksdb Write");
    batch_.Clear();
  }

 private:
  static std::string keyOf(char kind, Word number) {
    std::string key(1, kind);
    for (int shift = 56; shift >= 0; shift -= 8) key += static_cast<char>(number >> shift);
    return key;
  }

  std::unique_ptr<rocksdb::DB> db_;
  rocksdb::WriteBatch batch_;
  std::string record_ = std::string(kConfigRecord, 3);
};

void tablePeerRocksdb(benchmark::State& state) {
  const ScratchDirectory scratch;
  RocksStore store(scratch.path());
  cycles(state, store);
}
BENCHMARK(tablePeerRocksdb)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
#endif

#ifdef BASTIL_BENCH_HIREDIS
void tablePeerRedis(benchmark::State& state) {
  const ScratchDirectory scratch;
  RedisStore store(scratch.path());
  store.start();
  cycles(state, store);
}
// The work is done in another process, so wall-clock time counts.
BENCHMARK(tablePeerRedis)->Unit(benchmark::kMicrosecond)->UseRealTime();
const Goal kRedis("a table's cycle / HSET and XADD in Redis, 100 in flight",
                  "tableCycle/keys:65536/fill:10", "tablePeerRedis", 1.0 / 14);
#endif

}  // namespace
