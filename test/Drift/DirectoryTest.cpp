#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>

#include "Drift/Specimen.h"
#include "Support/Process.h"

namespace {

using namespace Drift;
using namespace Drift::Specimens;

constexpr Geometry kGeometry{Format::Layout::hashed, 4, 36, 16, "Type", "attribute"};

MountStage stageOf(const std::function<void()>& act) {
  const auto refusal = refusalOf(act);
  EXPECT_TRUE(!refusal || !refusal->msg().view().empty());
  return refusal ? refusal->stage() : MountStage::ok;
}

bool inAnotherProcess(const std::function<bool()>& act) {
  return Support::Process([&] { ::_exit(act() ? 0 : 1); }).wait() == 0;
}

class DirectoryTest : public testing::Test {
 protected:
  std::unique_ptr<DriftFile> writer(const char* entity = "a/b") {
    return DriftFile::openForWriting(directory_, entity, kGeometry, {});
  }
  std::unique_ptr<DriftFile> reader(const char* entity = "a/b") {
    return DriftFile::openForReading(directory_, entity, &kGeometry);
  }

  TempDir dir_;
  Directory directory_{dir_.path() + "/in/here", Directory::Access::write};
};

TEST_F(DirectoryTest, NamesThatTryToLeaveTheDirectoryAreRefused) {
  using namespace std::string_literals;
  std::vector<std::string> bad{"",     ".",     "..",      "../a",  "a/..", "a/../b",
                               "./a",  "a/.",   "a/./b",   "/..",   "../",  "a/..//b",
                               "a\nb", "a\x7f", "a\x1b[b", "a\0b"s, "\0"s};
  bad.push_back(std::string(4000, 'a'));
  bad.push_back(std::string(100, '/').append("a"));
  for (const std::string& name : bad) {
    EXPECT_EQ(stageOf([&] { Directory::fileNameOf(name); }), MountStage::refused) << name;
    EXPECT_EQ(stageOf([&] { DriftFile::openForWriting(directory_, name, kGeometry, {}); }),
              MountStage::refused);
    EXPECT_EQ(stageOf([&] { DriftFile::openForReading(directory_, name, nullptr); }),
              MountStage::refused);
  }
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path())) {
    EXPECT_TRUE(entry.is_directory()) << entry.path() << " was made";
  }
}

/// Random paths of troublesome characters: each has one name in the directory, one component long
/// and not hidden, which leads back to it and to no other.
TEST_F(DirectoryTest, EveryPathHasANameOfItsOwn) {
  std::mt19937 random(1);
  const std::string parts[] = {"/", ".", "..", "%", "%2F", "%25", "2F", "a", " ", "\xc3\xbc", "A"};
  std::map<std::string, std::string> names;
  for (int i = 0; i < 20000; ++i) {
    std::string path;
    for (auto count = random() % 6 + 1; count > 0; --count) path += parts[random() % 11];
    std::string name;
    if (stageOf([&] { name = Directory::fileNameOf(path); }) != MountStage::ok) continue;
    EXPECT_EQ(name.find('/'), std::string::npos);
    EXPECT_NE(name[0], '.');
    EXPECT_EQ(Directory::entityPathOf(name), path);
    EXPECT_EQ(names.emplace(name, path).first->second, path) << name << " stands for two";
  }
  EXPECT_GT(names.size(), 1000U);
  // The longest name leaves room for the temporary one.
  EXPECT_EQ(stageOf([&] { writer(std::string(231, 'a').c_str()); }), MountStage::ok);
  EXPECT_EQ(stageOf([&] { writer(std::string(232, 'a').c_str()); }), MountStage::refused);
}

TEST_F(DirectoryTest, WhatADeadMakerLeftBehindGoesAndWhatALivingOneMakesStays) {
  const std::string dead = directory_.path() + "/.a%2Fb.1.2";
  const std::string living = directory_.path() + "/.a%2Fb.3.4";
  writeFile(dead, "half made");
  writeFile(living, "half made");
  const int fd = ::open(living.c_str(), O_RDWR);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
  EXPECT_EQ(writer()->stage(), MountStage::made);
  EXPECT_FALSE(std::filesystem::exists(dead));
  EXPECT_TRUE(std::filesystem::exists(living));
  ::close(fd);
}

TEST_F(DirectoryTest, ADirectoryIsMadeOrNamedAsAbsentOrRefused) {
  struct stat found {};
  ASSERT_EQ(::stat(directory_.path().c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777U & ~static_cast<mode_t>(Directory::kDirectoryMode), 0U);
  const auto open = [](const std::string& path, Directory::Access access) {
    return stageOf([&] { Directory(path, access); });
  };
  EXPECT_EQ(open(dir_.path() + "/none", Directory::Access::read), MountStage::absent);
  EXPECT_EQ(open("", Directory::Access::write), MountStage::refused);
  EXPECT_EQ(open({"/dev/shm/a\0b", 12}, Directory::Access::write), MountStage::refused);
  writeFile(dir_.path() + "/file", "");
  EXPECT_EQ(open(dir_.path() + "/file", Directory::Access::read), MountStage::systemError);
  if (::chown(directory_.path().c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "only root can give a directory to another user";
  }
  EXPECT_EQ(open(directory_.path(), Directory::Access::write), MountStage::refused);
  EXPECT_EQ(open(directory_.path(), Directory::Access::read), MountStage::ok);
}

constexpr uid_t kOwner = 12345, kMember = 23456;
constexpr gid_t kGroup = 34567;

bool asUser(uid_t user, const std::function<bool()>& act) {
  return inAnotherProcess([&] {
    return ::setgroups(0, nullptr) == 0 && ::setgid(kGroup) == 0 && ::setuid(user) == 0 && act();
  });
}

TEST_F(DirectoryTest, AGroupSharesADirectoryThatItsOwnerOpensToIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be one user after the other";
  const std::string path = dir_.path() + "/shared";
  ASSERT_EQ(::mkdir(path.c_str(), 0750) + ::chown(path.c_str(), kOwner, kGroup), 0);
  ASSERT_EQ(::chmod(dir_.path().c_str(), 0755), 0);
  const auto writes = [&](const char* name, bool groupWrites) {
    return stageOf([&] {
      const Directory shared(path, Directory::Access::write);
      DriftFile::openForWriting(shared, name, kGeometry, {.groupWrites = groupWrites});
    });
  };
  const auto reads = [&](const char* name) {
    return stageOf([&] {
      DriftFile::openForReading({path, Directory::Access::read}, name, nullptr);
    });
  };
  for (const mode_t closed : {0750U, 02772U, 0770U}) {
    ASSERT_EQ(::chmod(path.c_str(), closed), 0);
    EXPECT_TRUE(asUser(kMember, [&] { return writes("member's", false) == MountStage::refused; }));
  }
  ASSERT_EQ(::chmod(path.c_str(), 02770), 0);
  EXPECT_TRUE(asUser(kOwner, [&] {
    return writes("owner's", false) == MountStage::ok && writes("all's", true) == MountStage::ok;
  }));
  EXPECT_TRUE(asUser(kMember, [&] {
    return reads("owner's") == MountStage::ok && writes("owner's", false) == MountStage::refused &&
           writes("all's", true) == MountStage::ok && writes("member's", false) == MountStage::ok;
  }));
  EXPECT_TRUE(asUser(kOwner, [&] {
    return reads("member's") == MountStage::ok && reads("all's") == MountStage::ok &&
           writes("member's", false) == MountStage::refused;
  }));
}

TEST_F(DirectoryTest, OneWriterAtATimeAndReadersWhenThereIsAFile) {
  EXPECT_EQ(stageOf([&] { reader(); }), MountStage::absent);
  auto first = writer();
  EXPECT_EQ(first->stage(), MountStage::made);
  struct stat found {};
  ASSERT_EQ(::stat(first->path().c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, static_cast<unsigned>(Directory::kFileMode));
  EXPECT_EQ(stageOf([&] { writer(); }), MountStage::busy);
  EXPECT_TRUE(inAnotherProcess(
      [&] { return stageOf([&] { writer(); }) == MountStage::busy && !reader()->writable(); }));
  first.reset();
  EXPECT_TRUE(inAnotherProcess([&] { return writer()->stage() == MountStage::ok; }));
  // The lock went with that process.
  first = writer();
  EXPECT_EQ(first->stage(), MountStage::ok);
  EXPECT_EQ(CheckedWord(first->data(), Format::Line::writerGeneration).load(), 3U);
  EXPECT_EQ(CheckedWord(first->data(), Format::Line::writer).load(), static_cast<Word>(::getpid()));
  // A file that is still being made, as a writer that was killed would leave it.
  storeWord(first->words(Format::kReadyOffset), 0);
  EXPECT_EQ(stageOf([&] { reader(); }), MountStage::notReady);
}

/// A child reads what it inherited and writes nothing, and its end does not end its parent's lock.
TEST_F(DirectoryTest, AForkedChildMayReadAndNotWrite) {
  for (const Geometry& geometry : {hashedOf(36, 16), denseOf(36, 16)}) {
    const auto file = DriftFile::openForWriting(directory_, nameOf(geometry), geometry, {});
    AnyWriter mine(*file);
    const Record key = keyOf(geometry, 1);
    mine.set(recordOf(geometry, key, 1));
    const std::string before = readFile(file->path());
    const auto refused = [](const auto& write) {
      try {
        write();
      } catch (const ForkedException& error) {
        return true;
      }
      return false;
    };
    EXPECT_TRUE(inAnotherProcess([&] {
      AnyView view(*file);
      return view.find(key) && refused([&] { mine.set(recordOf(geometry, key, 2)); }) &&
             refused([&] { mine.remove(key); }) && refused([&] { mine.removeAll(); }) &&
             stageOf([&] {
               DriftFile::openForWriting(directory_, nameOf(geometry), geometry, {});
             }) == MountStage::busy;
    }));
    EXPECT_EQ(readFile(file->path()), before);
    EXPECT_EQ(
        stageOf([&] { DriftFile::openForWriting(directory_, nameOf(geometry), geometry, {}); }),
        MountStage::busy);
    mine.set(recordOf(geometry, key, 3));
  }
}

/// Two processes wake each other, each without a system call while the other says that it is awake.
TEST_F(DirectoryTest, NoRingIsLostBetweenTwoThatSayWhenTheySleep) {
  constexpr std::uint32_t kRounds = 40'000;
  const auto mine = writer("mine");
  const std::uint32_t begin = mine->doorbell();
  const auto play = [&](DriftFile& own, const DriftFile& other, bool first) {
    unsigned late = 0;
    const std::uint32_t from = begin;
    for (std::uint32_t round = 0; round < kRounds; ++round) {
      if (first) own.ring(&other);
      const auto asked = std::chrono::steady_clock::now();
      const BellSeen bell{&other, from + round};
      if (!waitForAnyRing({&bell, 1}, std::chrono::seconds(10), {{&own}})) return kRounds;
      // One that is lost shows when the sleeper looks of itself.
      if (std::chrono::steady_clock::now() - asked > std::chrono::milliseconds(90)) ++late;
      if (late > 20) return kRounds;
      if (!first) own.ring(&other);
    }
    return late;
  };
  Support::Process child([&] {
    const auto own = writer("theirs");
    const auto other = reader("mine");
    ::_exit(play(*own, *other, false) < 20 ? 0 : 1);
  });
  std::unique_ptr<DriftFile> theirs;
  while (theirs == nullptr && child.running()) {
    if (stageOf([&] { theirs = reader("theirs"); }) != MountStage::ok) ::usleep(1000);
  }
  ASSERT_NE(theirs, nullptr);
  EXPECT_LT(play(*mine, *theirs, true), 20U) << "a busy machine is late a few times";
  EXPECT_EQ(child.wait(), 0);
}

/// The reader that the format's document is followed by, on files of both layouts.
TEST_F(DirectoryTest, TheExampleReaderPrintsWhatTheLibraryStored) {
  for (const Geometry& geometry : {hashedOf(124, 50), denseOf(124, 50)}) {
    const Specimen specimen = makeSpecimen(geometry, 50);
    const std::string path = dir_.path() + "/file";
    const auto run = [&](const std::string& image) {
      writeFile(path, image);
      return Support::run({"/usr/bin/env", "python3", BASTIL_READER, path}, dir_.path());
    };
    const auto [status, output, error] = run(specimen.image);
    ASSERT_EQ(status, 0) << error;
    for (const auto& [key, record] : specimen.model) {
      const std::span bytes(reinterpret_cast<const unsigned char*>(record.data()), 124);
      EXPECT_THAT(output, testing::HasSubstr(fmt::format("{:02x}", fmt::join(bytes, ""))));
    }
    EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(output, '\n')),
              specimen.model.size() + 1);
    // And says so when one bit of a record is another.
    std::string damaged = specimen.image;
    const Format::FixedHeader header = headerOf(geometry);
    for (Word slot = 0; slot < header.slotCount; ++slot) {
      damaged[header.slotsOffset + slot * header.slotStride + 20] ^= 4;
    }
    EXPECT_NE(run(damaged).status, 0);
  }
}

}  // namespace
