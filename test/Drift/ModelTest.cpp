#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <random>

#include "Drift/DenseCollection.h"
#include "Drift/HashedCollection.h"

namespace {

using namespace Drift;

struct Dir {
  Dir() {
    char t[] = "/dev/shm/qbtest.XXXXXX";
    path = mkdtemp(t);
  }
  ~Dir() { std::filesystem::remove_all(path); }
  std::string path;
};

TEST(Hashed, Model) {
  Dir dir;
  std::mt19937 rnd(1);
  for (std::uint32_t recordSize : {24u, 124u, 536u}) {
    Directory d(dir.path, Directory::Access::write);
    Geometry g{Format::Layout::hashed, 4, recordSize, 300, "T", "m"};
    std::map<Word, std::vector<Word>> model;
    std::unique_ptr<DriftFile> f;
    std::unique_ptr<HashedWriter> w;
    const size_t n = Format::paddedSize(recordSize) / 8;
    for (int i = 0; i < 200000; ++i) {
      if (i % 5000 == 0) {
        w.reset();
        f.reset();
        f = DriftFile::openForWriting(d, "a/b" + std::to_string(recordSize), g, {});
        EXPECT_EQ(f->reason(), "");
        w = std::make_unique<HashedWriter>(*f);
        EXPECT_EQ(w->dropped(), 0u);
      }
      Word key = rnd() % 400;
      switch (rnd() % 10) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4: {
          std::vector<Word> r(n);
          for (auto& x : r) x = rnd();
          r[0] = key | (Word(rnd()) << 32);
          r[0] = key;
          if (!model.count(key) && model.size() == 300)
            EXPECT_THROW(w->set(r), CollectionFullException);
          else {
            w->set(r);
            model[key] = r;
          }
          break;
        }
        case 5:
        case 6:
        case 7:
          EXPECT_EQ(w->remove(std::span(&key, 1)), model.erase(key) == 1);
          break;
        case 8:
          if (rnd() % 500 == 0) {
            w->removeAll();
            model.clear();
          }
          break;
        default: {
          std::vector<Word> out(n);
          ASSERT_EQ(w->view().find(std::span(&key, 1), out), model.count(key) == 1);
          if (model.count(key)) {
            ASSERT_EQ(out, model[key]);
          }
        }
      }
      ASSERT_EQ(w->view().size(), model.size());
      if (i % 1000 == 0) {
        WalkPosition p;
        std::vector<Word> out(n);
        Word k = 0;
        std::map<Word, std::vector<Word>> seen;
        while (w->view().next(p, std::span(&k, 1), out)) {
          k = out[0];
          ASSERT_TRUE(seen.emplace(k, out).second);
        }
        ASSERT_EQ(seen, model);
      }
    }
  }
}

TEST(Dense, Model) {
  Dir dir;
  std::mt19937 rnd(1);
  Directory d(dir.path, Directory::Access::write);
  Geometry g{Format::Layout::dense, 8, 548, 3000, "T", "m"};
  std::map<Word, std::vector<Word>> model;
  std::unique_ptr<DriftFile> f;
  std::unique_ptr<DenseWriter> w;
  const size_t n = Format::paddedSize(548) / 8;
  Word next = 1;
  for (int i = 0; i < 300000; ++i) {
    if (i % 5000 == 0) {
      w.reset();
      f.reset();
      f = DriftFile::openForWriting(d, "log", g, {});
      EXPECT_EQ(f->reason(), "");
      w = std::make_unique<DenseWriter>(*f);
    }
    Word version = next;
    const auto what = rnd() % 20;
    if (what < 10)
      version = next;
    else if (what == 10)
      version = next + rnd() % 4;
    else
      version = next - std::min<Word>(next, rnd() % 3000);
    if (what < 13) {
      std::vector<Word> r(n);
      for (auto& x : r) x = rnd();
      r[0] = version;
      try {
        w->set(r);
        model[version] = r;
        next = std::max(next, version + 1);
      } catch (const CollectionFullException&) {
        EXPECT_GT(model.size(), 1000u);
      }
    } else if (what < 19) {
      Word v = model.empty() ? 1 : (rnd() % 8 ? model.begin()->first : version);
      EXPECT_EQ(w->remove(v), model.erase(v) == 1);
    } else {
      std::vector<Word> out(n);
      const auto got = w->view().find(version, out);
      ASSERT_EQ(got == DenseRead::found, model.count(version) == 1);
      if (model.count(version)) {
        ASSERT_EQ(out, model[version]);
      }
    }
    ASSERT_EQ(w->view().size(), model.size());
    if (i % 1000 == 0) {
      std::vector<Word> out(n);
      std::map<Word, std::vector<Word>> seen;
      for (Word v = 0; w->view().findFrom(v, out); ++v) seen[v] = out;
      ASSERT_EQ(seen, model);
    }
    if (rnd() % 20000 == 0) {
      w->removeAll();
      model.clear();
    }
  }
}

}  // namespace
