#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <functional>

#include "Drift/Specimen.h"
#include "Support/Process.h"
#include "Support/Shared.h"

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

/// A call of the C library, unless its turn to fail has come.
template <class Function, class... Arguments>
auto call(Function*, const char* name, const char* told, Arguments... arguments) {
  static auto* const next = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
  using Result = decltype(next(arguments...));
  return faults.hit(told) ? (Result)-1 : next(arguments...);
}

}  // namespace

#define CALL(name, ...) return call(&::name, #name, #name, __VA_ARGS__)

#pragma GCC visibility push(default)
extern "C" {
int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = va_arg(rest, mode_t);
  va_end(rest);
  CALL(open, path, flags, mode);
}
int openat(int directory, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = va_arg(rest, mode_t);
  va_end(rest);
  CALL(openat, directory, path, flags, mode);
}
int fcntl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  const char* const told = command == F_OFD_GETLK ? "fcntl to give back" : "fcntl";
  return call(&::fcntl, "fcntl", told, fd, command, argument);
}
int fallocate(int fd, int mode, off_t offset, off_t size) {
  const char* const told = mode == 0 ? "fallocate" : "fallocate to give back";
  return call(&::fallocate, "fallocate", told, fd, mode, offset, size);
}
int fstat(int fd, struct stat* found) noexcept { CALL(fstat, fd, found); }
int fstatat(int directory, const char* path, struct stat* found, int flags) noexcept {
  CALL(fstatat, directory, path, found, flags);
}
int ftruncate(int fd, off_t size) noexcept { CALL(ftruncate, fd, size); }
int fchmod(int fd, mode_t mode) noexcept { CALL(fchmod, fd, mode); }
int mkdir(const char* path, mode_t mode) noexcept { CALL(mkdir, path, mode); }
int renameat(int from, const char* oldName, int to, const char* newName) noexcept {
  CALL(renameat, from, oldName, to, newName);
}
int renameat2(int from, const char* oldName, int to, const char* newName, unsigned flags) noexcept {
  CALL(renameat2, from, oldName, to, newName, flags);
}
void* mmap(void* where, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  CALL(mmap, where, size, protection, flags, fd, offset);
}
int madvise(void* where, size_t size, int advice) noexcept { CALL(madvise, where, size, advice); }
ssize_t pread(int fd, void* to, size_t size, off_t offset) { CALL(pread, fd, to, size, offset); }
ssize_t read(int fd, void* to, size_t size) { CALL(read, fd, to, size); }
}  // extern "C"
#pragma GCC visibility pop
#undef CALL

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
  /// An act of several steps: those before the failure stay done.
  bool inSteps = false;

  /// Each of the calls must have failed with each error.
  void run(const std::vector<std::string>& calls) {
    std::map<std::string, unsigned> fired;
    for (const int error : kErrors) {
      for (unsigned call = 1; runOne(call, error); ++call) {
        ++fired[faults.failed];
        if (testing::Test::HasFailure()) return;
      }
    }
    for (const std::string& call : calls) EXPECT_GE(fired[call], std::size(kErrors)) << call;
  }

  bool runOne(unsigned call, int error) {
    prepare();
    std::map<std::string, std::string> before;
    if (!inSteps) before = snapshot(directory);
    faults = {call, error, 0, "", true};
    std::string thrown;
    try {
      act();
    } catch (const Fenrik::Exception& exception) {
      thrown = exception.what();
    }
    faults.counting = false;
    SCOPED_TRACE(faults.failed + " as call " + std::to_string(call) + ": " + std::strerror(error) +
                 ": " + thrown);
    const bool failed = !faults.failed.empty();
    if (thrown.empty()) {
      // A limit of open files is raised.
      const bool mayFail = faults.failed == "madvise" || faults.failed.ends_with("give back") ||
                           (faults.failed == "openat" && error == EMFILE);
      EXPECT_TRUE(!failed || mayFail || (inSteps && faults.failed == "fallocate"));
    } else {
      EXPECT_TRUE(failed);
      if (inSteps) {
        verify();
      } else {
        EXPECT_NE(thrown.find(directory), std::string::npos);
        EXPECT_EQ(snapshot(directory), before);
      }
      act();
    }
    verify();
    return failed;
  }
};

constexpr auto layoutName = [](const auto& info) {
  return info.param == Format::Layout::dense ? "Dense" : "Hashed";
};
const auto kLayouts = testing::Values(Format::Layout::dense, Format::Layout::hashed);

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
    EXPECT_TRUE(sight.sound()) << sight.text();
  }
};

INSTANTIATE_TEST_SUITE_P(Layouts, FailureTest, kLayouts, layoutName);

TEST_P(FailureTest, EveryCallOfAMountFailsInTurn) {
  geometry_.capacity = 20;
  std::unique_ptr<DriftFile> reader;
  const auto open = [&](MountStage stage, bool reserveAll = false) {
    file_ = DriftFile::openForWriting(directory_, "e", geometry_, {.reserveAll = reserveAll});
    EXPECT_EQ(file_->stage(), stage);
  };
  const auto damage = [&] {
    startAnew(3), close(), model_.clear();
    std::string image = readFile(path_);
    image[100] = static_cast<char>(image[100] ^ 1);
    writeFile(path_, image);
  };
  const struct {
    const char* name;
    std::function<void()> prepare, act;
    std::vector<std::string> calls;
  } cases[] = {
      {"making",
       [&] { close(), std::filesystem::remove(path_); },
       [&] { open(MountStage::made); },
       {"fcntl", "openat", "fchmod", "ftruncate", "fallocate", "mmap", "open", "read",
        "renameat2"}},
      {"takeover",
       [&] { startAnew(3), close(); },
       [&] { open(MountStage::ok, true); },
       {"fcntl", "openat", "fstat", "fstatat", "pread", "mmap", "open", "read", "fallocate"}},
      {"rebuild",
       damage,
       [&] { open(MountStage::rebuilt); },
       {"pread", "fchmod", "ftruncate", "fallocate", "mmap", "renameat"}},
      {"reader",
       [&] { startAnew(5); },
       [&] { reader = DriftFile::openForReading(directory_, "e", nullptr); },
       {"openat", "fstat", "pread", "mmap"}},
  };
  for (const auto& [name, prepare, act, calls] : cases) {
    SCOPED_TRACE(name);
    Gauntlet{dir_.path(), prepare, act, [&] { expectModel(); }}.run(calls);
  }
  EXPECT_TRUE(look(*reader, model_).sound());
}

TEST_P(FailureTest, EveryCallOfAChangeFailsInTurn) {
  geometry_.capacity = 1000;
  const struct {
    std::function<void()> prepare, act;
    const char* call;
  } changes[] = {
      // A chunk holds 130 records: the next one begins with the 131st at the latest.
      {[&] { startAnew(120); },
       [&] {
         for (Word number = model_.size() + 1; number <= 135; ++number) put(number);
       },
       "fallocate"},
      // Of those that are left some keep their memory.
      {[&] { startAnew(900); }, [&] { writer_->removeAll(), model_.clear(); },
       "fallocate to give back"},
      {[&] { startAnew(10), close(); }, [&] { mount(); },
       // Only dense reserves at a takeover.
       GetParam() == Format::Layout::dense ? "fallocate" : "fcntl"},
  };
  for (const auto& [prepare, act, call] : changes) {
    Gauntlet{dir_.path(), prepare, act,
             [&] {
               if (file_ != nullptr) expectModel();
             },
             true}
        .run({call});
  }
}

TEST(DirectoryFailureTest, EveryCallOfOpeningAndListingFailsInTurn) {
  const TempDir dir;
  std::vector<std::string> names;
  Gauntlet{dir.path(), [&] { std::filesystem::remove_all(dir.path() + "/a"); },
           [&] { names = Directory(dir.path() + "/a/b", Directory::Access::write).entities(""); },
           [&] { EXPECT_TRUE(names.empty()); }, true}
      .run({"mkdir", "open", "fstat", "openat"});
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
    const off_t end = ::lseek(ballast.get(), 0, SEEK_END);
    const auto room = static_cast<off_t>(facts.f_bavail * facts.f_bsize);
    ASSERT_TRUE(room == 0 || ::fallocate(ballast.get(), 0, end, room) == 0);
    ASSERT_EQ(::fstatvfs(ballast.get(), &facts), 0);
    ASSERT_EQ(facts.f_bavail, 0U);
  }
  void makeRoom() { std::filesystem::remove(ballast_); }

  /// Without room it fails and leaves all as it was; with room it does not.
  void expectNeedsRoom(const std::function<void()>& act) {
    fill();
    const auto before = snapshot(dir_.path());
    try {
      act();
      ADD_FAILURE() << "there was room";
    } catch (const Fenrik::Exception& error) {
      EXPECT_THAT(error.what(), testing::MatchesRegex(".*" + path_ +
                                                      ": no space: .*bytes are needed.* 0 are "
                                                      "free.*"));
    }
    EXPECT_EQ(snapshot(dir_.path()), before);
    if (file_ != nullptr) expectModel();
    makeRoom();
    act();
    expectModel();
  }
  void removeAll() {
    writer_->removeAll();
    model_.clear();
  }

  std::string ballast_ = dir_.path() + "/ballast";
  bool mounted_ = false;
};

INSTANTIATE_TEST_SUITE_P(Layouts, FullFileSystemTest, kLayouts, layoutName);

TEST_P(FullFileSystemTest, MakingAndEachChunkNeedRoomAndNothingBetweenThem) {
  expectNeedsRoom([&] { mount(); });
  expectNeedsRoom([&] { put(1); });
  fill();
  Word number = 2;
  const auto putMany = [&] {
    for (; number < 1000; ++number) put(number);
  };
  EXPECT_THROW(putMany(), NoSpaceException);
  // A chunk holds 130 records of 8,008 bytes, or the versions below 128.
  EXPECT_GE(number, 128U);
  EXPECT_LE(number, 133U);
  expectNeedsRoom([&] { put(number); });
  fill();
  // Replacing in slots that are there, removing, and the takeover.
  if (GetParam() == Format::Layout::dense) put(5, 1);
  writer_->remove(keyOf(geometry_, 1));
  model_.erase(keyOf(geometry_, 1));
  expectModel();
  mount();
  EXPECT_EQ(file_->stage(), MountStage::ok);
  expectModel();
}

TEST_P(FullFileSystemTest, EverythingReservedAtTheMountNeedsNoRoomLater) {
  expectNeedsRoom([&] { mount({.reserveAll = true}); });
  fill();
  for (Word number = 1; number <= 600; ++number) put(number);
  expectModel();
  removeAll();
  put(601);
  expectModel();
  if (GetParam() == Format::Layout::dense) return;
  // Each table of an index has its room once: tombstones bring the next one on.
  for (Word number = 602; number < 5000; ++number) {
    put(number);
    writer_->remove(model_.begin()->first);
    model_.erase(model_.begin());
  }
  expectModel();
}

/// Readers are stopped wherever they are in their look-ups, and what they may be looking at is
/// removed; none of it may be gone when they go on where there is no room for a page.
TEST_P(FullFileSystemTest, AReaderOutlivesWhatItReads) {
  const Support::Shared<std::atomic<Word>> looks;
  for (int round = 0; round < 12; ++round) {
    startAnew(600);
    Support::Process reader([&] {
      // With the descriptor that it inherited it would hold its parent's lock.
      close();
      const auto file = DriftFile::openForReading(directory_, "e", nullptr);
      AnyView view(*file);
      for (Word number = 0;; number = number % 600 + 1) {
        view.find(keyOf(geometry_, number));
        ++*looks;
      }
    });
    const auto goesOn = [&](Word count) {
      for (const Word from = *looks; *looks < from + count && reader.running();) ::usleep(100);
      return reader.running();
    };
    ASSERT_TRUE(goesOn(1000));
    reader.stop();
    // Half of them are taken over from another writer.
    if (round % 2 == 0) mount();
    removeAll();
    fill();
    reader.signal(SIGCONT);
    EXPECT_TRUE(goesOn(20'000)) << "round " << round;
    reader.kill();
    makeRoom();
    // What was kept for it goes back as the writer goes on.
    for (Word number = 601; number < 1200; ++number) {
      put(number);
      writer_->remove(keyOf(geometry_, number));
    }
    model_.clear();
    struct stat facts {};
    ASSERT_EQ(::stat(path_.c_str(), &facts), 0);
    // Of 4.8 MB; a dense collection keeps four chunks of its five.
    const bool dense = GetParam() == Format::Layout::dense;
    EXPECT_LT(facts.st_blocks * 512, (dense ? 6 : 2) << 20) << "memory of removed records is held";
  }
}

}  // namespace
