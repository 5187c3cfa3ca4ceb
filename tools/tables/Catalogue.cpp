#include "tables/Catalogue.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "OrderedTable/Catalogue.h"
#include "OrderedTable/LogStore.h"

namespace Tables {
namespace {

using Asic::CatalogueFact;
using Asic::CataloguePart;
using Asic::CatalogueRecord;
using Drift::FieldKind;
using Drift::RecordField;
using Drift::TextForm;
using Rows = std::map<std::pair<CataloguePart, std::uint16_t>, CatalogueRecord>;

/// Limits of what another process may declare, in bytes.
constexpr std::uint32_t kGreatestKey = 64;
constexpr std::uint32_t kGreatestRecord = 65'536;
/// Maximum nesting of groups.
constexpr unsigned kDeepest = 8;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

/// Texts and field lists that families refer to; kept for the life of the process.
struct Memory {
  std::deque<std::string> texts;
  std::deque<std::vector<RecordField>> lists;

  static Memory& get() {
    static Memory& memory = *new Memory;
    return memory;
  }
};

std::string_view textOf(const CatalogueRecord& record) {
  require(record.name.back() == 0, "a name has no end");
  const std::string_view text = record.nameText();
  require(std::ranges::all_of(text, [](char c) { return c > ' ' && c < 0x7f; }),
          "a name has characters that no name has");
  return Memory::get().texts.emplace_back(text);
}

bool isNumber(const RecordField& field, std::size_t size = 0) {
  return field.kind == FieldKind::number && (size == 0 || field.size == size);
}

/// Whether values with these fields can be printed in that form.
bool isShownAs(TextForm form, const std::vector<RecordField>& fields) {
  const auto has = [&](std::string_view name) {
    return std::ranges::any_of(
        fields, [&](const RecordField& field) { return field.name == name && isNumber(field); });
  };
  switch (form) {
    case TextForm::members:
    case TextForm::whole:
      return true;
    case TextForm::place:
      return has("bank") && has("index");
    case TextForm::prefix:
      return fields.size() >= 2 && fields.size() <= 5 && isNumber(fields.back()) &&
             std::all_of(fields.begin(), fields.end() - 1,
                         [](const RecordField& field) { return isNumber(field, 4); });
  }
  return false;
}

/// Reads and verifies one family's rows, so that no field or offset exceeds its record.
class Reading {
 public:
  explicit Reading(const Rows& rows) : rows_(rows) {}

  KindFacts facts(Asic::SwTableId id) {
    const CatalogueRecord& config = fact(CatalogueFact::configRecord);
    const CatalogueRecord& log = fact(CatalogueFact::logRecord);
    const CatalogueRecord& key = fact(CatalogueFact::key);
    const CatalogueRecord& entry = fact(CatalogueFact::entry);
    require(key.size != 0 && key.size <= kGreatestKey, "the key has no possible size");
    require(key.size <= entry.size && entry.size < kGreatestRecord,
            "the entry has no possible size");
    require(log.offset == Asic::LogRecordLayout::kLogEntry && log.size <= kGreatestRecord &&
                std::size_t{log.offset} + entry.size <= log.size,
            "the log record has no room for the entry");
    require(entry.size <= config.offset && config.size <= kGreatestRecord &&
                std::size_t{config.offset} + sizeof(Word) < config.size,
            "the configuration record has no room for entry and version");
    return {.id = id,
            .agentName = name(CatalogueFact::agentName),
            .groupName = name(CatalogueFact::groupName),
            .tableNamespace = name(CatalogueFact::tableNamespace),
            .tableName = name(CatalogueFact::tableName),
            .configType = name(CatalogueFact::configRecord),
            .logType = name(CatalogueFact::logRecord),
            .configSize = config.size,
            .logSize = log.size,
            .keySize = key.size,
            .entrySize = entry.size,
            .versionOffset = config.offset,
            .key = shape(key, CataloguePart::key),
            .entry = shape(entry, CataloguePart::entry)};
  }

 private:
  const CatalogueRecord& fact(CatalogueFact fact) const {
    const auto found = rows_.find({CataloguePart::facts, static_cast<std::uint16_t>(fact)});
    require(found != rows_.end(), "a fact is missing");
    return found->second;
  }
  std::string_view name(CatalogueFact of) const {
    const std::string_view text = textOf(fact(of));
    require(!text.empty() && text.find('/') == text.npos, "a name is none");
    return text;
  }

  Fields shape(const CatalogueRecord& of, CataloguePart part) const {
    auto row = rows_.lower_bound({part, 0});
    const auto& fields = group(row, part, of.size, 0);
    require(row == rows_.end() || row->first.first != part, "a field is in no group");
    require(isShownAs(of.form, fields), "a value cannot be shown in its form");
    return {fields.data(), fields.size(), of.form};
  }

  /// Reads the fields of a group of the given size, from `row` on; leaves `row` after the last one.
  const std::vector<RecordField>& group(Rows::const_iterator& row, CataloguePart part,
                                        std::size_t size, unsigned depth) const {
    require(depth <= kDeepest, "groups are nested too deep");
    std::vector<RecordField> fields;
    while (row != rows_.end() && row->first.first == part && row->second.depth == depth) {
      const CatalogueRecord& is = (row++)->second;
      require(is.size != 0 && is.count != 0 && is.offset + std::size_t{is.size} * is.count <= size,
              "a field leads beyond its record");
      RecordField field{textOf(is).data(), is.offset, is.kind, is.size, is.count, 1};
      switch (is.kind) {
        case FieldKind::number:
          require(is.size <= sizeof(Word), "a number has too many bytes");
          break;
        case FieldKind::bytes:
        case FieldKind::flag:
        case FieldKind::presence:
          break;
        case FieldKind::group: {
          const auto& inner = group(row, part, is.size, depth + 1);
          require(isShownAs(is.form, inner), "a value cannot be shown in its form");
          field.fields = inner.data();
          field.fieldCount = inner.size();
          field.form = is.form;
          break;
        }
        default:
          require(false, "a field is of no known kind");
      }
      fields.push_back(field);
    }
    return Memory::get().lists.emplace_back(std::move(fields));
  }

  const Rows& rows_;
};

Shape shapeOfCatalogue() {
  using Layout = Asic::CatalogueDrift::Layout;
  return {Drift::Format::Layout::hashed, Asic::CatalogueDrift::kEntityName, Layout::kKeySize,
          Layout::kRecordSize};
}

std::map<Asic::SwTableId, Rows> read(const Drift::DriftFile& file, const Catalogue::Told& wrong) {
  std::map<Asic::SwTableId, Rows> families;
  walkHashed(
      file,
      [&](Words words) {
        CatalogueRecord record;
        Asic::CatalogueDrift::Layout::fromWords(words.data(), record);
        families[record.key.tableId][{record.key.part, record.key.row}] = record;
      },
      wrong);
  return families;
}

}  // namespace

bool Catalogue::learn(const Drift::Directory& directory, const Told& wrong) {
  const std::string path(Asic::CatalogueDrift::kPath);
  try {
    if (file_ != nullptr && !file_->file().replaced() && file_->file().doorbell() == seen_) {
      return false;
    }
    file_ = std::make_unique<Collection>(directory, path, shapeOfCatalogue());
  } catch (const Drift::MountException& e) {
    file_ = nullptr;
    const bool soon =
        e.stage() == Drift::MountStage::absent || e.stage() == Drift::MountStage::notReady;
    if (!soon) wrong(std::string(e.msg().view()));
    return false;
  }
  seen_ = file_->file().doorbell();
  bool some = false;
  for (const auto& [id, rows] : read(file_->file(), wrong)) {
    if (kindOf(id) != nullptr) continue;
    try {
      const KindFacts facts = Reading(rows).facts(id);
      require(kindOf(facts.tableName) == nullptr, "another table has its name");
      kindIs(facts);
      some = true;
    } catch (const std::runtime_error& e) {
      wrong(fmt::format("{}: table {} is not described so that it can be read: {}", path, id,
                        e.what()));
    }
  }
  return some;
}

}  // namespace Tables
