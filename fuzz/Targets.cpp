#include "fuzz/Targets.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "Drift/IndexWord.h"
#include "Drift/ModelRun.h"

namespace Drift::Fuzz {

using namespace Specimens;

namespace {

constexpr Geometry kGeometries[] = {
    {Format::Layout::hashed, 4, 36, 16, "Type", "attribute"},
    {Format::Layout::dense, 8, 36, 16, "Type", "attribute"},
};

void expect(const std::string& complaint) {
  if (complaint.empty()) return;
  std::fprintf(stderr, "%s\n", complaint.c_str());
  std::abort();
}

/// Corrects all checksums of an image, so that the code after the checks is reached.
class Resealer {
 public:
  explicit Resealer(std::string& image) : image_(image) {}

  void run() {
    if (image_.size() < Format::kHeaderSize) return;
    auto header = at<Format::FixedHeader>(0);
    header.checksum = headerChecksum(header);
    put(0, header);
    for (std::size_t line = 0; line < Format::kLineCount; ++line) resealLine(line);
    const bool dense = header.layout == Format::Layout::dense;
    const Format::FixedHeader expected = headerOf(kGeometries[dense ? 1 : 0]);
    for (Word i = 0; i < (dense ? 1 : 2) * expected.indexWords; ++i) {
      const std::size_t offset = Format::kHeaderSize + i * sizeof(Word);
      const Word word = at<Word>(offset);
      if (word == 0) continue;
      put(offset, dense ? chunkWord(i, (word & 0xffffffff) - 1)
                        : IndexWord::withCheck(IndexWord::content(word)));
    }
    for (Word slot = 0; slot < expected.slotCount; ++slot) {
      resealSlot(expected.slotsOffset + slot * expected.slotStride, expected.slotStride);
    }
  }

 private:
  template <class Value>
  Value at(std::size_t offset) const {
    Value value{};
    if (offset + sizeof value <= image_.size()) {
      std::memcpy(&value, image_.data() + offset, sizeof value);
    }
    return value;
  }
  template <class Value>
  void put(std::size_t offset, const Value& value) {
    if (offset + sizeof value <= image_.size()) {
      std::memcpy(image_.data() + offset, &value, sizeof value);
    }
  }

  void resealLine(std::size_t line) {
    const auto name = static_cast<Format::Line>(line);
    for (std::size_t copy = 0; copy < 2; ++copy) {
      const std::size_t offset = Format::lineOffset(name) + 16 * copy;
      const CheckedWord word(reinterpret_cast<const std::byte*>(image_.data()), name);
      put(offset + 8, word.checkOf(at<Word>(offset), at<Word>(offset + 8) >> 32));
    }
  }

  void resealSlot(std::size_t offset, std::size_t stride) {
    const std::uint32_t low = Seal::lowOf(at<Word>(offset));
    if (offset + stride > image_.size() || at<Word>(offset) == Seal::absentSeal(low)) return;
    Record record(stride / sizeof(Word) - 1);
    std::memcpy(record.data(), image_.data() + offset + Format::kSealSize, stride - 8);
    Record out(record.size());
    put(offset,
        Seal::sealWord(Seal::kLoops.copyOut(out.data(), record.data(), record.size(), low), low));
  }

  std::string& image_;
};

/// Applies changes of four bytes each: position (two bytes), kind, and value.
void change(std::string& image, std::span<const std::uint8_t> edits, bool anything) {
  for (; edits.size() >= 4 && !image.empty(); edits = edits.subspan(4)) {
    const std::size_t where = (edits[0] | std::size_t{edits[1]} << 8) % image.size();
    const std::size_t word = where / 8 * 8;
    const std::uint8_t with = edits[3];
    const unsigned how = anything ? edits[2] % 5 : 0;
    if (how == 0) image[where] = static_cast<char>(image[where] ^ with);
    if (how == 1) image[where] = static_cast<char>(with);
    if (how == 2 && word + 8 <= image.size()) {
      const Word value = with < 128 ? Word{with} : ~Word{0} - (255U - with);
      std::memcpy(image.data() + word, &value, sizeof value);
    }
    if (how == 3 && word + 8 * (with + 2U) <= image.size()) {
      std::memcpy(image.data() + word, image.data() + word + 8 * (with + 1U), 8);
    }
    if (how == 4) image.resize(with % 2 == 0 ? where : image.size() + where);
  }
}

/// Opens an image that no writer can have stored. Requires only that nothing crashes, and that the
/// writer taking over has a usable collection.
void openAnyway(const Directory& directory, const Specimen& specimen) {
  for (const Geometry* geometry : {&specimen.geometry, static_cast<const Geometry*>(nullptr)}) {
    try {
      lookAnyway(*DriftFile::openForReading(directory, "e", geometry));
    } catch (const MountException&) {
    }
  }
  const auto file = DriftFile::openForWriting(directory, "e", specimen.geometry, {});
  AnyWriter writer(*file);
  lookAnyway(*file);
  try {
    for (const auto& [key, record] : specimen.model) {
      writer.set(record);
      writer.remove(key);
      writer.set(record);
    }
  } catch (const CollectionFullException&) {
  }
  lookAnyway(*file);
  writer.removeAll();
  const auto& record = specimen.model.rbegin()->second;
  if (specimen.dense()) {
    Record next = record;
    next[0] = writer.dense->next();
    if (next[0] > ~Word{0} - 2) return;
    writer.set(next);
    expect(look(*file, {{{next[0]}, next}}).missing == 0 ? "" : "a record cannot be written");
  } else {
    writer.set(record);
    expect(look(*file, {{specimen.model.rbegin()->first, record}}).complaint);
  }
}

int operate(const Geometry& geometry, std::span<const std::uint8_t> bytes) {
  const auto choose = [&bytes](Word bound) -> Word {
    if (bytes.size() < 2) bytes = {};
    if (bytes.empty()) return 0;
    const Word number = bytes[0] | Word{bytes[1]} << 8;
    bytes = bytes.subspan(2);
    return number % bound;
  };
  try {
    ModelRun run(geometry, choose);
    while (!bytes.empty()) run.step();
    run.check();
  } catch (const std::exception& error) {
    expect(error.what());
  }
  return 0;
}

}  // namespace

int file(const std::uint8_t* data, std::size_t size) {
  static const Specimen specimens[] = {makeSpecimen(kGeometries[0], 12),
                                       makeSpecimen(kGeometries[1], 12)};
  static const TempDir dir;
  static const Directory directory(dir.path(), Directory::Access::write);
  if (size == 0) return 0;
  const std::span<const std::uint8_t> rest(data + 1, size - 1);
  const Specimen& specimen = specimens[data[0] % 2];
  const bool whole = (data[0] & 2) != 0;
  const bool reseal = (data[0] & 4) != 0;
  std::string image = specimen.image;
  if (whole) {
    image.assign(rest.begin(), rest.end());
  } else {
    change(image, rest, reseal);
  }
  if (reseal) Resealer(image).run();
  writeFile(directory.pathOf("e"), image);
  if (whole || reseal) {
    openAnyway(directory, specimen);
  } else {
    Tally tally;
    expect(inspect(directory, "e", specimen, tally));
  }
  return 0;
}

int hashed(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Word capacities[] = {1, 2, 7, 40};
  const std::uint32_t keySizes[] = {4, 8, 12, 24};
  return operate({Format::Layout::hashed, keySizes[data[0] / 4 % 4], 36, capacities[data[0] % 4],
                  "Type", "attribute"},
                 {data + 1, size - 1});
}

int dense(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Word capacities[] = {1, 3, 15, 100};
  return operate({Format::Layout::dense, 8, 36, capacities[data[0] % 4], "Type", "attribute"},
                 {data + 1, size - 1});
}

}  // namespace Drift::Fuzz
