#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>

#include "Drift/Specimen.h"

namespace {

using namespace Drift;
using namespace Drift::Specimens;
using namespace std::chrono_literals;

constexpr Geometry kGeometry{Format::Layout::hashed, 4, 36, 16, "Type", "attribute"};

template <class Act>
MountStage stageOf(Act act) {
  try {
    act();
    return MountStage::ok;
  } catch (const MountException& error) {
    EXPECT_FALSE(error.msg().view().empty());
    return error.stage();
  }
}

/// Runs `act` in another process; true if it gave true.
bool inAnotherProcess(const std::function<bool()>& act) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(act() ? 0 : 1);
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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
  const std::string bad[] = {"",
                             ".",
                             "..",
                             "../a",
                             "a/..",
                             "a/../b",
                             "./a",
                             "a/.",
                             "a/./b",
                             "/..",
                             "../",
                             "a/..//b",
                             {"a\0b", 3},
                             "a\nb",
                             "a\x7f",
                             "a\x1b[b",
                             {"\0", 1},
                             std::string(4000, 'a'),
                             std::string(100, '/').append("a")};
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

TEST_F(DirectoryTest, AListingShowsEntitiesAndNothingElse) {
  for (const char* entity : {"x/2", "x/1", ".hidden", "x", "y%/", "x//z"}) writer(entity);
  for (const char* foreign : {".x.1.2", "bad%zz", "bad%2f", "bad%", "sp ace", "%41"}) {
    writeFile(directory_.path() + "/" + foreign, "");
  }
  using Names = std::vector<std::string>;
  EXPECT_EQ(directory_.entities(""), (Names{".hidden", "x", "x//z", "x/1", "x/2", "y%/"}));
  EXPECT_EQ(directory_.entities("x/"), (Names{"x//z", "x/1", "x/2"}));
  EXPECT_EQ(directory_.entities("nothing"), Names{});
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

TEST_F(DirectoryTest, ReadersAreToldThatAFileWasReplaced) {
  writer();
  const auto old = reader();
  EXPECT_FALSE(old->replaced());
  writer();
  EXPECT_FALSE(old->replaced());
  Geometry other = kGeometry;
  other.capacity = 17;
  auto rebuilt = DriftFile::openForWriting(directory_, "a/b", other, {});
  EXPECT_EQ(rebuilt->stage(), MountStage::rebuilt);
  EXPECT_TRUE(old->replaced());
  EXPECT_FALSE(rebuilt->replaced());
  std::filesystem::remove(rebuilt->path());
  EXPECT_TRUE(rebuilt->replaced());
}

/// A reader, which may only read, sleeps until the writer in another process rings.
TEST_F(DirectoryTest, ADoorbellWakesAReaderOfAnotherProcess) {
  const auto bell = writer();
  const auto listener = reader();
  const std::uint32_t seen = listener->doorbell();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(listener->waitForRing(seen, 30ms));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
  EXPECT_FALSE(listener->waitForRing(seen, -1ms));
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const auto mine = reader();
    const std::uint32_t before = mine->doorbell();
    [[maybe_unused]] const auto told = ::write(pipe[1], "!", 1);
    ::_exit(mine->waitForRing(before, std::chrono::nanoseconds::max()) ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(pipe[0], &byte, 1), 1);
  // It has to be asleep for the wake to be put to the test.
  ::usleep(50'000);
  bell->ring();
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(listener->waitForRing(seen, 0ms));
  ::close(pipe[0]);
  ::close(pipe[1]);
}

/// The reader that the format's document is followed by, on files of both layouts.
TEST_F(DirectoryTest, TheExampleReaderPrintsWhatTheLibraryStored) {
  for (const auto layout : {Format::Layout::hashed, Format::Layout::dense}) {
    const std::uint32_t keySize = layout == Format::Layout::dense ? 8 : 12;
    const Specimen specimen = makeSpecimen({layout, keySize, 124, 50, "Type", "attribute"}, 50);
    const std::string path = dir_.path() + "/file";
    const auto run = [&](std::string& output) {
      const std::string command = std::string("python3 '" BASTIL_READER "' '") + path + "' 2>&1";
      FILE* const pipe = ::popen(command.c_str(), "r");
      char block[4096];
      while (const std::size_t size = std::fread(block, 1, sizeof block, pipe)) {
        output.append(block, size);
      }
      return ::pclose(pipe);
    };
    writeFile(path, specimen.image);
    std::string output;
    ASSERT_EQ(run(output), 0) << output;
    std::size_t found = 0;
    for (const auto& entry : specimen.model) {
      std::string line;
      const auto* bytes = reinterpret_cast<const unsigned char*>(entry.second.data());
      for (std::size_t i = 0; i < 124; ++i) line += fmt::format("{:02x}", bytes[i]);
      found += output.find(line) != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(found, specimen.model.size()) << output;
    EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(output, '\n')), found + 1);
    // And says so when one bit of a record is another.
    std::string damaged = specimen.image;
    const Format::FixedHeader header = headerOf(specimen.geometry);
    for (Word slot = 0; slot < header.slotCount; ++slot) {
      damaged[header.slotsOffset + slot * header.slotStride + 20] ^= 4;
    }
    writeFile(path, damaged);
    output.clear();
    EXPECT_NE(run(output), 0) << output;
  }
}

}  // namespace
