#pragma once

#include <lmdb.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace Bench {

/// LMDB with the settings appropriate here: no syncing to disk, integer keys, read transactions
/// renewed rather than recreated.
class Lmdb {
 public:
  explicit Lmdb(const std::string& path) {
    must(mdb_env_create(&env_));
    must(mdb_env_set_mapsize(env_, std::size_t{2} << 30));
    must(mdb_env_open(env_, path.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0640));
    MDB_txn* txn = nullptr;
    must(mdb_txn_begin(env_, nullptr, 0, &txn));
    must(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi_));
    must(mdb_txn_commit(txn));
  }
  ~Lmdb() { mdb_env_close(env_); }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  void fill(std::size_t count, std::size_t size) {
    const std::vector<char> record(size, 7);
    MDB_txn* txn = nullptr;
    must(mdb_txn_begin(env_, nullptr, 0, &txn));
    for (std::size_t key = 0; key < count; ++key) {
      MDB_val k{sizeof key, &key};
      MDB_val v{size, const_cast<char*>(record.data())};
      must(mdb_put(txn, dbi_, &k, &v, MDB_APPEND));
    }
    must(mdb_txn_commit(txn));
  }

  class Reader {
   public:
    explicit Reader(Lmdb& lmdb) : dbi_(lmdb.dbi_) {
      must(mdb_txn_begin(lmdb.env_, nullptr, MDB_RDONLY, &txn_));
      mdb_txn_reset(txn_);
    }
    ~Reader() { mdb_txn_abort(txn_); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool find(std::size_t key, std::vector<char>& out) {
      must(mdb_txn_renew(txn_));
      MDB_val k{sizeof key, &key};
      MDB_val v{};
      const bool found = mdb_get(txn_, dbi_, &k, &v) == 0;
      if (found) std::memcpy(out.data(), v.mv_data, v.mv_size);
      mdb_txn_reset(txn_);
      return found;
    }

    /// Copies every record in the order of keys and returns how many there were.
    std::size_t walk(std::vector<char>& out) {
      must(mdb_txn_renew(txn_));
      MDB_cursor* cursor = nullptr;
      must(mdb_cursor_open(txn_, dbi_, &cursor));
      MDB_val k{};
      MDB_val v{};
      std::size_t count = 0;
      for (; mdb_cursor_get(cursor, &k, &v, MDB_NEXT) == 0; ++count) {
        std::memcpy(out.data(), v.mv_data, v.mv_size);
      }
      mdb_cursor_close(cursor);
      mdb_txn_reset(txn_);
      return count;
    }

   private:
    MDB_dbi dbi_;
    MDB_txn* txn_ = nullptr;
  };

 private:
  static void must(int result) {
    if (result != 0) std::abort();
  }

  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

}  // namespace Bench
