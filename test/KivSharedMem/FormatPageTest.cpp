#include <gmock/gmock.h>

#include <regex>
#include <sstream>

#include "OrderedTable/NeededEntryDrift.h"
#include "OrderedTable/TableVersionDrift.h"
#include "QuarnBastil/Families.h"
#include "Stavro/EntityManager.h"
#include "Support/Collections.h"

/// The page of the format, held against the library.
namespace {

using namespace Drift;
using testing::HasSubstr;

const std::string& page() {
  static const std::string text = Specimens::readFile(BASTIL_FORMAT_PAGE);
  return text;
}

std::string shapeOf(const RecordField& field) {
  std::string shape;
  if (field.kind == FieldKind::group) {
    for (std::size_t i = 0; i < field.fieldCount; ++i) {
      const RecordField& inner = field.fields[i];
      if (inner.kind == FieldKind::padding) continue;
      shape += fmt::format("{}{} {} at {}", shape.empty() ? "" : ", ", inner.name, shapeOf(inner),
                           inner.offset);
    }
    shape = fmt::format("{} bytes: {}", field.size, shape);
    return field.count > 1 ? fmt::format("{} × ({})", field.count, shape) : "(" + shape + ")";
  }
  if (field.kind == FieldKind::presence) return "1, presence";
  if (field.kind == FieldKind::flag) return "1, flag";
  return field.count > 1 ? fmt::format("{} × {}", field.count, field.size)
                         : fmt::format("{}", field.size);
}

template <class T>
std::string tableOf(std::string_view name) {
  std::string rows = fmt::format("**{}**, {} bytes\n\n| Offset | Field | Size |\n|---|---|---|\n",
                                 name, sizeof(T));
  for (const RecordField& field : kFieldsOf<T>) {
    if (field.kind != FieldKind::padding) {
      rows += fmt::format("| {} | {} | {} |\n", field.offset, field.name, shapeOf(field));
    }
  }
  return rows + "\n";
}

/// The row of a family, and the fields of its entry under its name.
template <class F>
void add(std::string& rows, std::string& entries) {
  using Config = typename F::ConfigDriftEntry;
  const std::string_view type = F::ConfigDrift::kEntityName;
  const std::string_view name =
      type.substr(0, type.size() - std::string_view("ConfigDrift").size());
  const auto own = name.substr(name.rfind(':') + 1);
  rows += fmt::format("| {} | {} | {} | {} | {} | {} | {} | {} |\n", own, sizeof(typename F::Key),
                      sizeof(typename F::LogEntry), offsetof(Config, rsrcKeys),
                      offsetof(Config, logVersion), offsetof(Config, isDeleted), sizeof(Config),
                      sizeof(typename F::LogDriftEntry));
  entries += tableOf<typename F::LogEntry>(own);
  if constexpr (requires(typename F::ResourceKeys keys) { keys.requestId; }) {
    entries += tableOf<typename F::ResourceKeys>(fmt::format("Resource keys of {}", own));
  }
}
template <class... F>
struct AddEach {
  static void to(std::string& rows, std::string& entries) { (add<F>(rows, entries), ...); }
};

TEST(FormatPageTest, StatesTheFieldsOfEveryFamily) {
  std::string families =
      "| Family | key | entry | `rsrcKeys` | `logVersion` | `isDeleted` | configuration | log |\n"
      "|---|---|---|---|---|---|---|---|\n";
  std::string entries;
  QuarnBastil::FamilyList<AddEach>::to(families, entries);
  EXPECT_THAT(page(), HasSubstr(families));
  entries +=
      tableOf<Asic::NeededEntryRecord>("Needed set") + tableOf<Asic::TableVersionRecord>("Report");
  EXPECT_THAT(page(), HasSubstr(entries));
  using State = Stavro::StateRecord;
  const std::pair<std::size_t, const char*> state[] = {{offsetof(State, path), "path"},
                                                       {offsetof(State, typeName), "typeName"},
                                                       {offsetof(State, valueSize), "valueSize"},
                                                       {offsetof(State, value), "value"}};
  for (const auto& [offset, name] : state) {
    EXPECT_THAT(page(), HasSubstr(fmt::format("| {} | {} | ", offset, name)));
  }
}

TEST(FormatPageTest, StatesTheNumbersOfTheHeader) {
  using H = Format::FixedHeader;
#define FIELD(name) std::tuple(offsetof(H, name), sizeof(H::name), #name)
  for (const auto& [offset, size, name] :
       {FIELD(magic), FIELD(formatVersion), FIELD(layout), FIELD(abi), FIELD(keySize),
        FIELD(recordSize), FIELD(slotStride), FIELD(spare), FIELD(capacity), FIELD(slotCount),
        FIELD(indexWords), FIELD(slotsOffset), FIELD(fileSize), FIELD(hashSeed), FIELD(bootId),
        FIELD(typeName), FIELD(attributeName), FIELD(checksum)}) {
    EXPECT_THAT(page(), HasSubstr(fmt::format("| {} | {} | {} | ", offset, size, name)));
  }
  const char* const lines[] = {
      "active", "first",    "next",       "holes", "redirect",         "live0",
      "live1",  "reserved", "scratchpad", "wiped", "writerGeneration", "announced",
      "writer"};
  static_assert(std::size(lines) == Format::kLineCount);
  for (std::size_t line = 0; line < Format::kLineCount; ++line) {
    const bool live = line == 5 || line == 6;
    EXPECT_THAT(page(), HasSubstr(live ? "| 5, 6 | live0, live1 | "
                                       : fmt::format("| {} | {} | ", line, lines[line])));
  }
  for (const std::string& fact :
       {fmt::format("fixed header, {} bytes", sizeof(H)),
        fmt::format("| {} | `ready`, a word", Format::kReadyOffset),
        fmt::format("| {} | {} mutable words, each on a line of {} bytes", Format::kLinesOffset,
                    Format::kLineCount, Format::kLineSize),
        fmt::format("| {} | doorbell, 4 bytes", Format::kDoorbellOffset),
        fmt::format("A 32-bit number at {} that", Format::kDoorbellOffset),
        fmt::format("| {} | sleeping, 4 bytes", Format::kSleepingOffset),
        fmt::format("| {} | hashed: index table 0", Format::kHeaderSize),
        fmt::format("| {}; refuse every other |", Format::kVersion),
        fmt::format("{:#018x}; anything else", Format::kAbi),
        fmt::format("at most {} |", Format::kMaxKeySize),
        fmt::format("hashed: capacity + {} |", Format::kRestingSlots),
        fmt::format("Line n begins at {} + {}n", Format::kLinesOffset, Format::kLineSize),
        fmt::format("crc(c + 1, {:#x}, place)", Format::kChunkMark),
        fmt::format("| 0..{} | slot number + 1", Format::kSlotBits - 1),
        fmt::format("collection has {} (or `indexWords`", Format::kStartIndexWords),
        fmt::format("most {}.", Format::kMaxDisplacement + 1),
        fmt::format("rests until {} more", Format::kRestingSlots)}) {
    EXPECT_THAT(page(), HasSubstr(fact));
  }
}

/// The bytes of a file, as far as the page shows them: lines "    OFFSET  HEX HEX  text" behind
/// each other, from the heading on.
std::string imageBelow(const std::string& heading, std::size_t size) {
  // A text is two blanks behind the bytes, and may begin with what looks like a number.
  static const std::regex dump("    ([0-9a-f]{4})  ((?:(?:[0-9a-f]{2})+ ?)+)(?:  .*)?");
  std::string image(size, '\0');
  std::istringstream lines(page().substr(page().find(heading) + heading.size()));
  std::size_t shown = 0;
  std::smatch found;
  for (std::string line; std::getline(lines, line) && !line.starts_with("## ");) {
    if (!std::regex_match(line, found, dump)) continue;
    std::size_t offset = std::stoul(found[1], nullptr, 16);
    std::string digits = found[2];
    std::erase(digits, ' ');
    for (std::size_t i = 0; i < digits.size(); i += 2, ++offset, ++shown) {
      image.at(offset) = static_cast<char>(std::stoul(digits.substr(i, 2), nullptr, 16));
    }
  }
  EXPECT_GE(shown, 300U);
  return image;
}

/// What is printed there is what the library reads.
TEST(FormatPageTest, ShowsFilesThatCanBeRead) {
  const Support::TempDir dir;
  const Directory directory(dir.path(), Directory::Access::write);
  const auto open = [&](const std::string& image) {
    Specimens::writeFile(directory.pathOf("demo"), image);
    return DriftFile::openForReading(directory, "demo", nullptr);
  };
  const auto hashed = open(imageBelow("## A hashed file, byte by byte", 0x3000));
  EXPECT_STREQ(hashed->header().typeName, "Demo::Route");
  const HashedView routes(*hashed);
  std::array<Word, 2> route{};
  const Word keys[] = {10, 11};
  EXPECT_TRUE(routes.find(KeyWords(keys, 1), route));
  // The key has the first four bytes, the value the next eight.
  EXPECT_EQ(route[0], 10U);
  EXPECT_EQ(route[1], 0x333U);
  EXPECT_FALSE(routes.find(KeyWords(keys + 1, 1), route));
  EXPECT_EQ(routes.size(), 1U);
  EXPECT_EQ(hashKey(KeyWords(keys, 1), hashed->header().hashSeed), 0x9fee2efcfafc179cU);
  EXPECT_THAT(page(), HasSubstr("0x9fee2efcfafc179c"));

  const auto dense = open(imageBelow("## A dense file, byte by byte", 0x4000));
  const DenseView log(*dense);
  std::array<Word, 2> record{};
  EXPECT_EQ(log.find(3, record), DenseRead::gone);
  EXPECT_EQ(log.find(4, record), DenseRead::found);
  EXPECT_EQ(record[1], 0x44U);
  EXPECT_EQ(log.find(5, record), DenseRead::gone);
  EXPECT_EQ(log.find(6, record), DenseRead::found);
  EXPECT_EQ(log.find(7, record), DenseRead::notYet);
  EXPECT_EQ(log.size(), 2U);
}

}  // namespace
