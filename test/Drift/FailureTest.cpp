#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <functional>

#include "Drift/Specimen.h"

/// System calls that fail on demand. The library binds to these because the program exports them.
namespace {

struct Faults {
  unsigned failAt = 0;  ///< number of the call that fails, from 1; 0: none
  int error = 0;
  unsigned calls = 0;
  std::string failed;  ///< name of the call that failed; empty if none has
  bool counting = false;

  bool hit(const char* name) {
    if (!counting || ++calls != failAt) return false;
    failed = name;
    errno = error;
    return true;
  }
};
Faults faults;

template <class Function>
Function* real(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

#define REAL(name) static auto* const next = real(&::name, #name)

#pragma GCC visibility push(default)
extern "C" {
int open(const char* path, int flags, ...) {
  REAL(open);
  va_list rest;
  va_start(rest, flags);
  const auto mode = va_arg(rest, mode_t);
  va_end(rest);
  return faults.hit("open") ? -1 : next(path, flags, mode);
}
int openat(int directory, const char* path, int flags, ...) {
  REAL(openat);
  va_list rest;
  va_start(rest, flags);
  const auto mode = va_arg(rest, mode_t);
  va_end(rest);
  return faults.hit("openat") ? -1 : next(directory, path, flags, mode);
}
int fcntl(int fd, int command, ...) {
  REAL(fcntl);
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return faults.hit("fcntl") ? -1 : next(fd, command, argument);
}
int fstat(int fd, struct stat* found) noexcept {
  REAL(fstat);
  return faults.hit("fstat") ? -1 : next(fd, found);
}
int fstatat(int directory, const char* path, struct stat* found, int flags) noexcept {
  REAL(fstatat);
  return faults.hit("fstatat") ? -1 : next(directory, path, found, flags);
}
int fallocate(int fd, int mode, off_t offset, off_t size) {
  REAL(fallocate);
  return faults.hit(mode == 0 ? "fallocate" : "fallocate to give back")
             ? -1
             : next(fd, mode, offset, size);
}
int ftruncate(int fd, off_t size) noexcept {
  REAL(ftruncate);
  return faults.hit("ftruncate") ? -1 : next(fd, size);
}
int fchmod(int fd, mode_t mode) noexcept {
  REAL(fchmod);
  return faults.hit("fchmod") ? -1 : next(fd, mode);
}
int mkdir(const char* path, mode_t mode) noexcept {
  REAL(mkdir);
  return faults.hit("mkdir") ? -1 : next(path, mode);
}
int renameat(int from, const char* oldName, int to, const char* newName) noexcept {
  REAL(renameat);
  return faults.hit("renameat") ? -1 : next(from, oldName, to, newName);
}
int renameat2(int from, const char* oldName, int to, const char* newName, unsigned flags) noexcept {
  REAL(renameat2);
  return faults.hit("renameat2") ? -1 : next(from, oldName, to, newName, flags);
}
void* mmap(void* where, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  REAL(mmap);
  return faults.hit("mmap") ? MAP_FAILED : next(where, size, protection, flags, fd, offset);
}
int madvise(void* where, size_t size, int advice) noexcept {
  REAL(madvise);
  return faults.hit("madvise") ? -1 : next(where, size, advice);
}
ssize_t pread(int fd, void* to, size_t size, off_t offset) {
  REAL(pread);
  return faults.hit("pread") ? -1 : next(fd, to, size, offset);
}
ssize_t read(int fd, void* to, size_t size) {
  REAL(read);
  return faults.hit("read") ? -1 : next(fd, to, size);
}
}  // extern "C"
#pragma GCC visibility pop
#undef REAL

namespace {

using namespace Drift;
using namespace Drift::Specimens;

/// Names, modes and bytes of all that is in a directory, temporary files included.
std::map<std::string, std::string> snapshot(const std::string& directory) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    struct stat facts {};
    ::stat(entry.path().c_str(), &facts);
    files[entry.path().filename()] = std::to_string(facts.st_mode) + readFile(entry.path());
  }
  return files;
}

constexpr int kErrors[] = {ENOSPC, EIO, ENOMEM, EACCES, EMFILE, EPERM};

/// Lets each system call of `act` fail in turn, with each error, after `prepare` has made the state
/// anew. `act` must throw a named error and leave every file as it was, unless the call is one that
/// only makes things better; after it, and after a second go without fault, `verify` must hold.
struct Gauntlet {
  std::string directory;
  std::function<void()> prepare;
  std::function<void()> act;
  std::function<void()> verify;
  std::map<std::string, unsigned> fired{};

  void run() {
    for (const int error : kErrors) {
      for (unsigned call = 1; runOne(call, error); ++call) {
        if (testing::Test::HasFailure()) return;
      }
    }
  }

  bool runOne(unsigned call, int error) {
    prepare();
    const auto before = snapshot(directory);
    faults = {call, error, 0, "", true};
    std::string thrown;
    try {
      act();
    } catch (const Fenrik::Exception& exception) {
      thrown = exception.what();
    }
    faults.counting = false;
    if (faults.failed.empty()) {
      EXPECT_EQ(thrown, "");
      verify();
      return false;
    }
    ++fired[faults.failed];
    SCOPED_TRACE(faults.failed + " as call " + std::to_string(call) + ": " + std::strerror(error) +
                 ": " + thrown);
    if (thrown.empty()) {
      EXPECT_TRUE(faults.failed == "madvise" || faults.failed == "fallocate to give back");
    } else {
      EXPECT_EQ(snapshot(directory), before);
      EXPECT_NE(thrown.find(directory), std::string::npos);
      act();
    }
    verify();
    return true;
  }
};

class FailureTest : public testing::TestWithParam<Format::Layout> {
 protected:
  /// Large enough for several chunks, and for an index table of a page.
  Geometry geometry_{GetParam(), 8, 8000, 600, "Type", "attribute"};
  TempDir dir_;
  Directory directory_{dir_.path(), Directory::Access::write};
  std::string path_ = directory_.pathOf("e");
  std::unique_ptr<DriftFile> file_;
  std::unique_ptr<AnyWriter> writer_;
  Model model_;

  void mount(DriftFile::Options options = {}) {
    close();
    file_ = DriftFile::openForWriting(directory_, "e", geometry_, options);
    writer_ = std::make_unique<AnyWriter>(*file_);
  }
  void close() {
    writer_.reset();
    file_.reset();
  }
  void put(Word number, Word salt = 0) {
    const Record key = keyOf(geometry_, number);
    writer_->set(recordOf(geometry_, key, salt));
    model_[key] = recordOf(geometry_, key, salt);
  }
  void startAnew(Word count) {
    close();
    std::filesystem::remove(path_);
    model_.clear();
    mount();
    for (Word number = 1; number <= count; ++number) put(number);
  }
  void expectModel() {
    const Sight sight = look(*file_, model_);
    EXPECT_EQ(sight.complaint, "");
    EXPECT_EQ(sight.errors, 0U);
    EXPECT_EQ(sight.missing, 0U);
  }
};

INSTANTIATE_TEST_SUITE_P(Layouts, FailureTest,
                         testing::Values(Format::Layout::dense, Format::Layout::hashed),
                         [](const auto& info) {
                           return info.param == Format::Layout::dense ? "Dense" : "Hashed";
                         });

TEST_P(FailureTest, EveryCallOfAMakingFailsInTurn) {
  geometry_.capacity = 20;
  Gauntlet gauntlet{dir_.path(), [&] { close(), std::filesystem::remove(path_); },
                    [&] { file_ = DriftFile::openForWriting(directory_, "e", geometry_, {}); },
                    [&] { EXPECT_EQ(file_->stage(), MountStage::made), expectModel(); }};
  gauntlet.run();
  for (const char* call : {"fcntl", "openat", "fchmod", "ftruncate", "fallocate", "mmap", "open",
                           "read", "renameat2"}) {
    EXPECT_GE(gauntlet.fired[call], std::size(kErrors)) << call;
  }
}

TEST_P(FailureTest, EveryCallOfATakeoverFailsInTurn) {
  geometry_.capacity = 20;
  Gauntlet gauntlet{
      dir_.path(), [&] { startAnew(3), close(); },
      [&] { file_ = DriftFile::openForWriting(directory_, "e", geometry_, {.reserveAll = true}); },
      [&] { EXPECT_EQ(file_->stage(), MountStage::ok), expectModel(); }};
  gauntlet.run();
  for (const char* call :
       {"fcntl", "openat", "fstat", "fstatat", "pread", "mmap", "open", "read", "fallocate"}) {
    EXPECT_GE(gauntlet.fired[call], std::size(kErrors)) << call;
  }
}

TEST_P(FailureTest, EveryCallOfARebuildFailsInTurn) {
  geometry_.capacity = 20;
  const auto prepare = [&] {
    startAnew(3);
    close();
    model_.clear();
    std::string image = readFile(path_);
    image[100] = static_cast<char>(image[100] ^ 1);
    writeFile(path_, image);
  };
  Gauntlet gauntlet{dir_.path(), prepare,
                    [&] { file_ = DriftFile::openForWriting(directory_, "e", geometry_, {}); },
                    [&] { EXPECT_EQ(file_->stage(), MountStage::rebuilt), expectModel(); }};
  gauntlet.run();
  for (const char* call : {"pread", "fchmod", "ftruncate", "fallocate", "mmap", "renameat"}) {
    EXPECT_GE(gauntlet.fired[call], std::size(kErrors)) << call;
  }
}

TEST_P(FailureTest, EveryCallOfAReaderFailsInTurn) {
  geometry_.capacity = 20;
  startAnew(5);
  std::unique_ptr<DriftFile> reader;
  Gauntlet gauntlet{dir_.path(), [] {},
                    [&] { reader = DriftFile::openForReading(directory_, "e", nullptr); },
                    [&] { EXPECT_EQ(look(*reader, model_).missing, 0U); }};
  gauntlet.run();
  for (const char* call : {"fcntl", "openat", "fstat", "pread", "mmap"}) {
    EXPECT_GE(gauntlet.fired[call], std::size(kErrors)) << call;
  }
}

TEST_P(FailureTest, EveryCallOfAChangeFailsInTurn) {
  struct Change {
    const char* call;
    std::function<void()> prepare;
    std::function<void()> act;
  };
  geometry_.capacity = 1000;
  // A chunk holds 130 records: the next one begins with the 131st at the latest. Of those that are
  // left some keep their memory.
  const Change changes[] = {
      {"fallocate", [&] { startAnew(120); },
       [&] {
         for (Word number = model_.size() + 1; number <= 135; ++number) put(number);
       }},
      {"fallocate to give back", [&] { startAnew(900); },
       [&] { writer_->removeAll(), model_.clear(); }},
      {"fallocate", [&] { startAnew(10), close(); }, [&] { mount(); }},
  };
  for (const Change& change : changes) {
    // What is appended before a failure stays: only the directory's names are compared.
    Gauntlet gauntlet{dir_.path(), change.prepare, change.act, [&] { expectModel(); }};
    for (const int error : kErrors) {
      for (unsigned call = 1;; ++call) {
        change.prepare();
        faults = {call, error, 0, "", true};
        bool thrown = false;
        try {
          change.act();
        } catch (const Fenrik::Exception&) {
          thrown = true;
        }
        faults.counting = false;
        if (faults.failed.empty()) break;
        ++gauntlet.fired[faults.failed];
        SCOPED_TRACE(faults.failed + ": " + std::strerror(error));
        if (thrown && file_ != nullptr) expectModel();
        if (thrown) change.act();
        expectModel();
        ASSERT_FALSE(HasFailure());
      }
    }
    // Only dense reserves at a takeover.
    const bool applies = &change != &changes[2] || GetParam() == Format::Layout::dense;
    if (applies) {
      EXPECT_GE(gauntlet.fired[change.call], std::size(kErrors)) << change.call;
    }
  }
}

TEST(DirectoryFailureTest, EveryCallOfOpeningAndListingFailsInTurn) {
  const TempDir dir;
  const std::string path = dir.path() + "/a/b";
  std::unique_ptr<Directory> directory;
  std::vector<std::string> names;
  Gauntlet gauntlet{dir.path(), [&] { std::filesystem::remove_all(dir.path() + "/a"); },
                    [&] {
                      directory = std::make_unique<Directory>(path, Directory::Access::write);
                      names = directory->entities("");
                    },
                    [&] { EXPECT_TRUE(names.empty()); }};
  for (const int error : kErrors) {
    for (unsigned call = 1;; ++call) {
      gauntlet.prepare();
      faults = {call, error, 0, "", true};
      MountStage stage = MountStage::ok;
      try {
        gauntlet.act();
      } catch (const MountException& exception) {
        stage = exception.stage();
      }
      faults.counting = false;
      if (faults.failed.empty()) break;
      ++gauntlet.fired[faults.failed];
      EXPECT_NE(stage, MountStage::ok) << faults.failed << std::strerror(error);
      gauntlet.act();
    }
  }
  for (const char* call : {"mkdir", "open", "fstat", "openat"}) {
    EXPECT_GE(gauntlet.fired[call], std::size(kErrors)) << call;
  }
}

/// A file system of a few megabytes that can be filled to the last page.
class FullFileSystemTest : public FailureTest {
 protected:
  void SetUp() override {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", dir_.path().c_str(), "tmpfs", 0, "size=8m") != 0) {
      GTEST_SKIP() << "this user may not mount a file system for the test";
    }
    mounted_ = true;
    directory_ = Directory(dir_.path(), Directory::Access::write);
  }
  void TearDown() override {
    close();
    directory_ = Directory("/dev/shm", Directory::Access::read);
    if (mounted_) {
      EXPECT_EQ(::umount2(dir_.path().c_str(), MNT_DETACH), 0);
    }
  }

  void fill() {
    const Descriptor ballast(::open(ballast_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    struct statvfs facts {};
    ASSERT_EQ(::fstatvfs(ballast.get(), &facts), 0);
    struct stat size {};
    ASSERT_EQ(::fstat(ballast.get(), &size), 0);
    const auto room = static_cast<off_t>(facts.f_bavail * facts.f_bsize);
    if (room > 0) {
      ASSERT_EQ(::fallocate(ballast.get(), 0, size.st_size, room), 0);
    }
    ASSERT_EQ(::fstatvfs(ballast.get(), &facts), 0);
    ASSERT_EQ(facts.f_bavail, 0U);
  }
  void makeRoom() { std::filesystem::remove(ballast_); }

  template <class Exception>
  void expectNoSpace(const std::function<void()>& act) {
    fill();
    const auto before = snapshot(dir_.path());
    try {
      act();
      ADD_FAILURE() << "there was room";
    } catch (const Exception& error) {
      const std::string text = error.what();
      EXPECT_NE(text.find(path_ + ": no space: "), std::string::npos) << text;
      EXPECT_NE(text.find("bytes are needed"), std::string::npos) << text;
      EXPECT_NE(text.find(" 0 are free"), std::string::npos) << text;
    }
    EXPECT_EQ(snapshot(dir_.path()), before);
  }

  std::string ballast_ = dir_.path() + "/ballast";
  bool mounted_ = false;
};

INSTANTIATE_TEST_SUITE_P(Layouts, FullFileSystemTest,
                         testing::Values(Format::Layout::dense, Format::Layout::hashed),
                         [](const auto& info) {
                           return info.param == Format::Layout::dense ? "Dense" : "Hashed";
                         });

TEST_P(FullFileSystemTest, MakingAndTheFirstRecordNeedRoom) {
  expectNoSpace<MountException>([&] { mount(); });
  makeRoom();
  mount();
  expectNoSpace<NoSpaceException>([&] { put(1); });
  expectModel();
  makeRoom();
  put(1);
  expectModel();
}

TEST_P(FullFileSystemTest, TheNextChunkNeedsRoomAndTheLastOneIsUsedUp) {
  mount();
  put(1);
  fill();
  Word number = 2;
  try {
    for (;; ++number) put(number);
  } catch (const NoSpaceException&) {
  }
  // A chunk holds 130 records of 8,008 bytes, or the versions below 128.
  EXPECT_GE(number, 128U);
  EXPECT_LE(number, 133U);
  expectNoSpace<NoSpaceException>([&] { put(number); });
  expectModel();
  // What needs no memory goes on: replacing in slots that are there, removing, and room comes back.
  if (GetParam() == Format::Layout::dense) put(5, 1);
  writer_->remove(keyOf(geometry_, 1));
  model_.erase(keyOf(geometry_, 1));
  expectModel();
  makeRoom();
  for (; number < 200; ++number) put(number);
  expectModel();
}

TEST_P(FullFileSystemTest, ATakeoverGoesOnWithWhatIsThere) {
  startAnew(140);
  close();
  fill();
  mount();
  EXPECT_EQ(file_->stage(), MountStage::ok);
  expectModel();
  EXPECT_EQ(look(*DriftFile::openForReading(directory_, "e", nullptr), model_).complaint, "");
}

TEST_P(FullFileSystemTest, EverythingReservedAtTheMountNeedsNoRoomLater) {
  expectNoSpace<MountException>([&] { mount({.reserveAll = true}); });
  makeRoom();
  mount({.reserveAll = true});
  fill();
  for (Word number = 1; number <= 600; ++number) put(number);
  expectModel();
  writer_->removeAll();
  model_.clear();
  put(601);
  expectModel();
}

TEST_P(FullFileSystemTest, RemovingEverythingNeedsRoomForAnIndexOnly) {
  mount();
  for (Word number = 1; number <= 200; ++number) put(number);
  fill();
  if (GetParam() == Format::Layout::hashed) {
    expectNoSpace<NoSpaceException>([&] { writer_->removeAll(); });
    expectModel();
    makeRoom();
  }
  writer_->removeAll();
  model_.clear();
  expectModel();
}

/// Removing and inserting leave tombstones until the other index table has to be used.
TEST_P(FullFileSystemTest, ChangingTheIndexTableNeedsRoom) {
  if (GetParam() == Format::Layout::dense) return;
  mount();
  for (Word number = 1; number <= 500; ++number) put(number);
  fill();
  Word number = 501;
  try {
    for (; number < 100'000; ++number) {
      const Record oldest = model_.begin()->first;
      writer_->remove(oldest);
      model_.erase(oldest);
      put(number);
    }
    FAIL() << "no index table was needed";
  } catch (const NoSpaceException& error) {
    EXPECT_NE(std::string(error.what()).find(path_), std::string::npos);
  }
  expectNoSpace<NoSpaceException>([&] { put(number); });
  expectModel();
  makeRoom();
  put(number);
  expectModel();
}

}  // namespace
