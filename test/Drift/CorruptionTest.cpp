#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>

#include "Drift/IndexWord.h"
#include "Drift/Specimen.h"
#include "Support/Soak.h"

namespace {

using namespace Drift;
using namespace Drift::Specimens;
using testing::AllOf;
using testing::HasSubstr;

/// Of the steps that come in tens of thousands; a sanitizer makes each some ten times slower.
constexpr std::size_t kFewer = BASTIL_SANITIZED ? 11 : 1;

/// Both layouts; whatever hangs is ended by the alarm.
class CorruptionTest : public testing::TestWithParam<Geometry> {
 protected:
  CorruptionTest() { ::alarm(600); }
  ~CorruptionTest() override { ::alarm(0); }

  bool inspectImage(const std::string& image) {
    writeFile(path_, image);
    const std::string complaint = inspect(directory_, "a/b", specimen_, tally_);
    EXPECT_EQ(complaint, "");
    return complaint.empty();
  }

  /// Flips each bit of a part of the file by itself.
  void flipBits(std::size_t begin, std::size_t size) {
    std::string image = specimen_.image;
    ASSERT_LE(begin + size, image.size());
    for (std::size_t bit = 8 * begin; bit < 8 * (begin + size); bit += kFewer) {
      const auto mask = static_cast<char>(1 << (bit % 8));
      image[bit / 8] = static_cast<char>(image[bit / 8] ^ mask);
      ASSERT_TRUE(inspectImage(image)) << "byte " << bit / 8 << " bit " << bit % 8;
      image[bit / 8] = static_cast<char>(image[bit / 8] ^ mask);
    }
  }

  /// Dense: a record that was replaced, a hole, the newest. Hashed: those of three index words.
  std::vector<Word> threeSlots() const {
    const Format::FixedHeader header = headerOf(specimen_.geometry);
    if (specimen_.dense()) {
      const Word first = specimen_.model.begin()->first[0];
      const Word newest = specimen_.model.rbegin()->first[0];
      const Word mask = header.slotCount - 1;
      return {first & mask, (first + 1) & mask, newest & mask};
    }
    std::vector<Word> slots;
    for (std::size_t at = Format::kHeaderSize; slots.size() < 3; at += sizeof(Word)) {
      Word word = 0;
      std::memcpy(&word, specimen_.image.data() + at, sizeof word);
      if (word != 0 && !IndexWord::isTombstone(word)) slots.push_back(IndexWord::from(word).slot);
    }
    return slots;
  }

  TempDir dir_;
  Directory directory_{dir_.path(), Directory::Access::write};
  std::string path_ = directory_.pathOf("a/b");
  Specimen specimen_ = makeSpecimen(GetParam(), 12);
  Tally tally_;
};

INSTANTIATE_TEST_SUITE_P(Layouts, CorruptionTest,
                         testing::Values(hashedOf(36, 16), denseOf(36, 16)),
                         [](const auto& info) { return nameOf(info.param); });

TEST_P(CorruptionTest, EveryBitOfTheHeaderPageAndBothCopiesOfEachWord) {
  for (std::size_t line = 0; line < Format::kLineCount; ++line) {
    std::string image = specimen_.image;
    for (std::size_t copy = 0; copy < 4; ++copy) {
      image[Format::kLinesOffset + line * Format::kLineSize + copy * sizeof(Word)] ^= 0x40;
    }
    ASSERT_TRUE(inspectImage(image)) << "line " << line;
  }
  tally_ = {};
  flipBits(0, Format::kHeaderSize);
  EXPECT_GE(tally_.refusedAtOpen, sizeof(Format::FixedHeader) * 8 / kFewer);
  EXPECT_GE(tally_.rebuilt, sizeof(Format::FixedHeader) * 8 / kFewer);
  EXPECT_GT(tally_.right, Format::kLineCount * 4 * sizeof(Word) * 8 / kFewer);
}

TEST_P(CorruptionTest, EveryBitOfTheIndexAndOfThreeSlots) {
  const Format::FixedHeader header = headerOf(GetParam());
  flipBits(Format::kHeaderSize, 2 * header.indexWords * sizeof(Word));
  if (specimen_.dense()) {
    // A chunk that cannot be: what is in it is an error for readers, and found again by a writer.
    EXPECT_GE(tally_.errorsWhileReading, 32 / kFewer);
  } else {
    EXPECT_GE(tally_.dropped, header.indexWords * sizeof(Word) * 8 / kFewer);
  }
  const unsigned before = tally_.errorsWhileReading;
  for (const Word slot : threeSlots()) {
    flipBits(header.slotsOffset + slot * header.slotStride, header.slotStride);
  }
  // A hole has no record, only its seal.
  const unsigned bits = (specimen_.dense() ? 2 : 3) * header.slotStride * 8;
  const std::size_t expected = (bits + (specimen_.dense() ? 64 : 0)) / kFewer;
  EXPECT_GE(tally_.errorsWhileReading, before + expected);
}

TEST_P(CorruptionTest, EveryLengthAtAPageAndAroundIt) {
  for (std::size_t page = 0; page <= specimen_.image.size() + Format::kPageSize;
       page += Format::kPageSize) {
    for (const int odd : {-1, 0, 1, 200}) {
      if (odd < 0 && page == 0) continue;
      std::string image = specimen_.image;
      image.resize(page + static_cast<std::size_t>(odd));
      ASSERT_TRUE(inspectImage(image)) << image.size();
    }
  }
  EXPECT_EQ(tally_.right, 1U);
  EXPECT_GT(tally_.rebuilt, 4 * specimen_.image.size() / Format::kPageSize);
}

TEST_P(CorruptionTest, AMillionRandomFlipsInAFullFile) {
  Geometry geometry = GetParam();
  geometry.capacity = 300;
  geometry.recordSize = 124;
  specimen_ = makeSpecimen(geometry, 300);
  const Support::Seed seed;
  std::mt19937_64 random(seed);
  unsigned flips = 0;
  while (flips < 1'000'000 / kFewer) {
    // Most rounds spare the header, in which a flip or two hide everything behind.
    const std::size_t from = random() % 8 == 0 ? 0 : Format::kHeaderSize;
    std::string image = specimen_.image;
    for (std::size_t left = std::size_t{1} << random() % 11; left > 0; --left, ++flips) {
      const std::size_t bit = (from + random() % (image.size() - from)) * 8 + random() % 8;
      image[bit / 8] = static_cast<char>(image[bit / 8] ^ (1 << bit % 8));
    }
    ASSERT_TRUE(inspectImage(image)) << "after " << flips << " flips";
  }
  EXPECT_GT(tally_.refusedAtOpen, 0U);
  EXPECT_GT(tally_.rebuilt, 0U);
  EXPECT_GT(tally_.errorsWhileReading, 1000U / kFewer);
}

/// Both copies of a word are destroyed under a living writer: readers meet named errors, sizes
/// among them, until the writer puts back what it knows, of itself or when it is asked to.
TEST_P(CorruptionTest, ALivingWriterPutsItsHeaderRight) {
  writeFile(path_, specimen_.image);
  const auto file = DriftFile::openForWriting(directory_, "a/b", GetParam(), {});
  AnyWriter writer(*file);
  const std::vector<std::size_t> lines =
      specimen_.dense() ? std::vector<std::size_t>{1, 2, 3, 4} : std::vector<std::size_t>{0, 5, 7};
  const auto destroy = [&](std::size_t line) {
    const auto at = Format::kLinesOffset + line * Format::kLineSize;
    for (std::size_t word = 0; word < 4; ++word) file->words(at)[word] ^= 0x40;
  };
  for (const std::size_t line : lines) {
    destroy(line);
    const Sight hurt = look(*file, specimen_.model);
    EXPECT_EQ(hurt.complaint, "") << line;
    EXPECT_GT(hurt.errors, 0U) << line;
    specimen_.dense() ? writer.dense->restoreHeader() : writer.hashed->restoreHeader();
    EXPECT_TRUE(look(*file, specimen_.model).sound()) << line;
  }
  for (const std::size_t line : lines) destroy(line);
  // It needs none of them to go on.
  Model model = specimen_.model;
  Word number = specimen_.dense() ? writer.dense->next() : 500;
  for (Word change = 0; change < 600; ++change, ++number) {
    const Record key = keyOf(GetParam(), number);
    writer.set(model[key] = recordOf(GetParam(), key, 1));
    ASSERT_TRUE(writer.remove(model.begin()->first));
    model.erase(model.begin());
  }
  EXPECT_TRUE(look(*file, model).sound());
}

TEST_P(CorruptionTest, GarbageForeignFormatsAndOtherGeometriesAreNamed) {
  const Geometry& own = GetParam();
  Geometry larger = own, wider = own, renamed = own, elsewhere = own;
  larger.capacity = 17;
  wider.recordSize = 40;
  renamed.typeName = "Other";
  elsewhere.attributeName = "x";
  const struct {
    std::size_t offset;
    std::string bytes;
    MountStage stage;
    const char* found;
    const Geometry* wanted;
  } cases[] = {
      {0, std::string(4096, '\0'), MountStage::wrongFormat, "0000000000000000", nullptr},
      {0, std::string(4096, 'x'), MountStage::wrongFormat, "7878787878787878", nullptr},
      {8, {"\x63\0\0\0", 4}, MountStage::wrongFormat, "version 99", nullptr},
      {16, "\x08\x07\x06\x05\x04\x03\x02\x08", MountStage::wrongFormat, "byte order", nullptr},
      {110, "?", MountStage::damaged, "checksum", nullptr},
      {Format::kReadyOffset, "?", MountStage::notReady, "made", nullptr},
      {0, "", MountStage::wrongFormat, "capacity is 16, 17 is wanted", &larger},
      {0, "", MountStage::wrongFormat, "record size is 36, 40 is wanted", &wider},
      {0, "", MountStage::wrongFormat, "type is Type, Other is wanted", &renamed},
      {0, "", MountStage::wrongFormat, "attribute is attribute, x is wanted", &elsewhere},
  };
  for (const auto& [offset, bytes, stage, found, wanted] : cases) {
    std::string image = specimen_.image;
    image.replace(offset, bytes.size(), bytes);
    writeFile(path_, image);
    const auto refusal =
        refusalOf([&, wanted = wanted] { DriftFile::openForReading(directory_, "a/b", wanted); });
    ASSERT_TRUE(refusal) << found;
    EXPECT_EQ(refusal->stage(), stage) << refusal->what();
    EXPECT_THAT(refusal->what(), AllOf(HasSubstr(found), HasSubstr(path_)));
    const Geometry& made = wanted != nullptr ? *wanted : own;
    const auto file = DriftFile::openForWriting(directory_, "a/b", made, {});
    EXPECT_EQ(file->stage(), MountStage::rebuilt);
    EXPECT_THAT(file->reason().str(), HasSubstr(found));
  }
}

/// What stands in a file's place is left as it is, by readers and writers.
TEST_P(CorruptionTest, WhatIsNoFileOfOursIsRefused) {
  const auto expectRefused = [&](const char* found) {
    const auto read = [&] { DriftFile::openForReading(directory_, "a/b", &GetParam()); };
    const auto write = [&] { DriftFile::openForWriting(directory_, "a/b", GetParam(), {}); };
    for (const auto& refusal : {refusalOf(read), refusalOf(write)}) {
      ASSERT_TRUE(refusal) << found << " was accepted";
      EXPECT_EQ(refusal->stage(), MountStage::refused) << refusal->what();
      EXPECT_THAT(refusal->what(), AllOf(HasSubstr(found), HasSubstr(path_)));
    }
    std::filesystem::remove_all(path_);
  };
  const std::string other = dir_.path() + "/other";
  writeFile(other, specimen_.image);
  std::filesystem::create_symlink(other, path_);
  expectRefused("symbolic link");
  std::filesystem::create_hard_link(other, path_);
  expectRefused("2 names");
  std::filesystem::create_directory(path_);
  expectRefused("it is ");
  ASSERT_EQ(::mkfifo(path_.c_str(), 0640), 0);
  expectRefused("not a regular file");
  writeFile(path_, specimen_.image, 0666);
  expectRefused("0666");
  EXPECT_EQ(readFile(other), specimen_.image);

  sockaddr_un address{AF_UNIX, {}};
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  expectRefused("open");

  writeFile(path_, specimen_.image, 0600);
  EXPECT_NO_THROW(DriftFile::openForReading(directory_, "a/b", &GetParam()));
  EXPECT_THROW(DriftFile::openForWriting(directory_, "a/b", GetParam(), {}), MountException);

  writeFile(path_, specimen_.image);
  if (::chown(path_.c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "only root can give a file to another user";
  }
  expectRefused("12345");
}

/// The seal is linear: what one flipped bit does to it is the same in every record. No two of them
/// may be alike (two flips would cancel) or none (one would not show), and an odd number of ones in
/// each means that no odd number of flips cancels.
TEST(SealTest, EveryErrorOfOneTwoOrAnOddNumberOfBitsShows) {
  for (std::size_t words = 1; words <= 128; ++words) {
    Record record(words);
    Record out(words);
    const auto crc = [&](std::uint32_t low) {
      return Seal::kPortableLoops.copyOut(out.data(), record.data(), words, low);
    };
    const std::uint32_t intact = crc(0);
    std::vector<std::uint32_t> changes;
    for (std::size_t bit = 0; bit < words * 64; ++bit) {
      record[bit / 64] ^= Word{1} << bit % 64;
      changes.push_back(crc(0) ^ intact);
      record[bit / 64] ^= Word{1} << bit % 64;
    }
    // The seal itself: its running number and its checksum.
    for (unsigned bit = 0; bit < 32; ++bit) {
      changes.push_back(crc(1U << bit) ^ intact);
      changes.push_back(1U << bit);
    }
    for (const std::uint32_t change : changes) ASSERT_EQ(std::popcount(change) % 2, 1) << words;
    std::ranges::sort(changes);
    ASSERT_EQ(std::ranges::adjacent_find(changes), changes.end()) << words << " words";
  }
}

/// The loops that the machine's instructions make fast give what the portable ones give.
TEST(SealTest, AllFormsAgree) {
  for (std::size_t words = 1; words <= 70; ++words) {
    Record record(words);
    for (std::size_t i = 0; i < words; ++i) record[i] = contentOf(i, words, 1);
    Record fast(words);
    Record slow(words);
    const auto low = static_cast<std::uint32_t>(contentOf(words, 0, 1));
    const auto crc = Seal::kPortableLoops.copyOut(slow.data(), record.data(), words, low);
    EXPECT_EQ(Seal::kLoops.copyOut(fast.data(), record.data(), words, low), crc);
    // In two pieces, with a border anywhere.
    const std::size_t border = contentOf(words, 1, 1) % (words * sizeof(Word) + 1);
    const auto* const bytes = reinterpret_cast<const std::byte*>(record.data());
    const Piece pieces[] = {{0, bytes, border},
                            {border, bytes + border, words * sizeof(Word) - border}};
    EXPECT_EQ(Seal::kLoops.copyIn(fast.data(), Pieces(pieces), words, low), crc);
    EXPECT_EQ(fast, record);
    EXPECT_EQ(slow, record);
    EXPECT_EQ(Seal::kLoops.words(low, words, 3), Seal::kPortableLoops.words(low, words, 3));
  }
}

}  // namespace
