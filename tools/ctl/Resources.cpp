#include "ctl/Resources.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>
#include <map>

#include "OrderedTable/TableDescriptor.h"
#include "QuarnBastil/TcamAction.h"
#include "QuarnL3NiLib/ReqIdToFecResourceDrift.h"

namespace Ctl {
namespace {

using QuarnBastil::TcamActionFamily;
using QuarnL3NiLib::ReqIdToFecResourceDrift;
using QuarnL3NiLib::ReqIdToFecResourceRecord;
using Tables::NextHopNote;
using Tables::WaitNote;

constexpr Tables::Shape kResourceShape{
    Drift::Format::Layout::hashed, ReqIdToFecResourceDrift::kEntityName,
    ReqIdToFecResourceDrift::Layout::kKeySize, ReqIdToFecResourceDrift::Layout::kRecordSize};

template <class Note, std::size_t words>
Note noteOf(Words record) {
  std::array<Word, words> copy{};
  std::copy_n(record.begin(), std::min(record.size(), words), copy.begin());
  return std::bit_cast<Note>(copy);
}

template <std::size_t size>
std::string textOf(const std::array<char, size>& text) {
  return {text.data(), ::strnlen(text.data(), size)};
}

std::int64_t millisecondsNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

double secondsSince(Word milliseconds) {
  return static_cast<double>(millisecondsNow() - static_cast<std::int64_t>(milliseconds)) / 1000;
}

class Reader {
 public:
  explicit Reader(const Drift::Directory& directory) : directory_(directory) {}

  ResourcesPicture read() {
    picture_.atRest = readNotes();
    for (const auto& [id, note] : notes_) resource(id).note = note;
    each(ReqIdToFecResourceDrift::kPath, kResourceShape, [&](Words words) {
      ReqIdToFecResourceRecord record;
      ReqIdToFecResourceDrift::Layout::fromWords(words.data(), record);
      resource(record.requestId.value()).value = {record.destId, record.state, record.updateNumber};
    });
    const TableKind& actions = *Tables::kindOf(TcamActionFamily::kTableId);
    for (const Asic::UnitId unit : Tables::configuredUnits(directory_, actions)) {
      each(fmt::format("{}{}", actions.configPath, unit), actions.config,
           [&](Words words) { readEntry(words); });
    }
    picture_.atRest = picture_.atRest && readNotes();
    for (auto& [id, found] : found_) picture_.resources.push_back(std::move(found));
    std::ranges::sort(picture_.resources, {}, &ResourcePicture::name);
    return std::move(picture_);
  }

 private:
  ResourcePicture& resource(Word id) {
    ResourcePicture& found = found_[id];
    found.id = id;
    return found;
  }

  /// False if there is no such collection.
  template <class Visit>
  bool each(const std::string& path, const Tables::Shape& shape, Visit visit) {
    if (directory_.entities(path).empty()) return false;
    const auto problem = [&](const std::string& text) { picture_.problems.push_back(text); };
    try {
      const Tables::Collection collection(directory_, path, shape);
      Tables::walkHashed(collection.file(), visit, problem);
      scratchpad_ = Tables::lineOf(collection.file(), Drift::Format::Line::scratchpad).value_or(0);
      return true;
    } catch (const Fenrik::Exception& e) {
      problem(e.what());
      return false;
    }
  }

  /// Whether they are of an agent at rest, and the same as at an earlier reading.
  bool readNotes() {
    bool same = true;
    picture_.noted =
        each(std::string(Tables::kNextHopNotes), Tables::kNextHopNoteShape, [&](Words words) {
          const auto note = noteOf<NextHopNote, Tables::kNextHopNoteWords>(words);
          const auto [at, isNew] = notes_.emplace(note.id, note);
          const bool equal = std::memcmp(&at->second, &note, sizeof note) == 0;
          same = same && equal;
        });
    return same && picture_.noted && scratchpad_ == Tables::kNotesAtRest;
  }

  void readEntry(Words words) {
    QuarnBastil::TcamActionConfigDriftEntry entry;
    QuarnBastil::TcamActionConfigDrift::Layout::fromWords(words.data(), entry);
    const Word id = entry.rsrcKeys.requestId.value();
    if (id == 0 || entry.isDeleted) return;
    ResourcePicture& of = resource(id);
    ++of.users;
    of.strays += of.value && of.value->destId == entry.logEntry.destId ? 0 : 1;
  }

  const Drift::Directory& directory_;
  ResourcesPicture picture_;
  std::map<Word, ResourcePicture> found_;
  std::map<Word, NextHopNote> notes_;
  Word scratchpad_ = 0;
};

std::string ageOf(const ResourcePicture& resource) {
  if (!resource.note || !resource.value || resource.note->update != resource.value->updateNumber) {
    return "-";
  }
  return fmt::format("{:.1f} s", secondsSince(resource.note->updatedAt));
}

std::string rowOf(const ResourcePicture& resource) {
  const auto number = [&](auto member) {
    return resource.note ? fmt::format("{}", (*resource.note).*member) : std::string("-");
  };
  const auto& value = resource.value;
  return fmt::format("{:<24} {:<20} {:>10} {:>7} {:>7} {:>12} {:>11} {:>10}", resource.name(),
                     value ? fmt::format("{}", value->state) : "no value",
                     value ? fmt::format("{}", value->destId) : "-", resource.users,
                     value ? fmt::format("{}", value->updateNumber) : "-",
                     number(&NextHopNote::acknowledged), number(&NextHopNote::inHardware),
                     ageOf(resource));
}

Json jsonOf(const ResourcePicture& resource) {
  Json json{{"id", resource.id}, {"name", resource.name()}, {"users", resource.users}};
  json["otherDestination"] = resource.strays;
  if (resource.value) {
    json.update({{"state", fmt::format("{}", resource.value->state)},
                 {"destination", resource.value->destId},
                 {"update", resource.value->updateNumber}});
  }
  if (resource.note) {
    json.update({{"acknowledged", resource.note->acknowledged},
                 {"inHardware", resource.note->inHardware},
                 {"age", secondsSince(resource.note->updatedAt)}});
  }
  return json;
}

}  // namespace

std::string ResourcePicture::name() const {
  const std::string given = note ? textOf(note->name) : "";
  return given.empty() ? fmt::format("{}", id) : given;
}

ResourcesPicture resourcesPictureOf(const Drift::Directory& directory) {
  return Reader(directory).read();
}

int resources(const Context& context) {
  const ResourcesPicture picture = resourcesPictureOf(context.directory);
  if (context.json) {
    Json all = Json::array();
    for (const ResourcePicture& resource : picture.resources) all.push_back(jsonOf(resource));
    Context::line(Json{{"resources", all}, {"problems", picture.problems}}.dump());
  } else {
    Context::line(fmt::format("{:<24} {:<20} {:>10} {:>7} {:>7} {:>12} {:>11} {:>10}", "resource",
                              "state", "dest", "users", "update", "acknowledged", "in hardware",
                              "age"));
    for (const ResourcePicture& resource : picture.resources) Context::line(rowOf(resource));
  }
  for (const std::string& problem : picture.problems) Context::say(problem);
  return picture.problems.empty() ? kFine : kFinding;
}

void checkResources(const Drift::Directory& directory, Findings& findings) {
  const ResourcesPicture picture = resourcesPictureOf(directory);
  const TableKind& actions = *Tables::kindOf(TcamActionFamily::kTableId);
  const bool settled =
      picture.noted ? picture.atRest : Tables::isWritten(directory, actions.logPath);
  auto& told = settled ? findings.wrong : findings.notes;
  const std::string later = settled ? "" : "; the agent was changing them";
  for (const ResourcePicture& resource : picture.resources) {
    const auto& note = resource.note;
    const bool behind =
        note && resource.value && note->acknowledged != resource.value->updateNumber;
    if (!resource.value && resource.users != 0) {
      told.insert(fmt::format("resource {} has no value, and {} entries use it{}", resource.name(),
                              resource.users, later));
    } else if (resource.strays != 0 && (behind || !settled)) {
      findings.notes.insert(fmt::format("{} entries do not have destination {} of resource {} yet",
                                        resource.strays, resource.value->destId, resource.name()));
    } else if (resource.strays != 0) {
      told.insert(fmt::format("{} entries do not have destination {} of resource {}",
                              resource.strays, resource.value->destId, resource.name()));
    }
    if (note && note->users != resource.users) {
      told.insert(fmt::format("resource {} has {} users, the agent counted {}{}", resource.name(),
                              resource.users, note->users, later));
    }
  }
}

std::vector<std::string> waitsOfAgent(const Drift::Directory& directory) {
  std::vector<std::string> waits;
  if (directory.entities(Tables::kWaitNotes).empty()) return waits;
  try {
    const Tables::Collection notes(directory, std::string(Tables::kWaitNotes),
                                   Tables::kWaitNoteShape);
    Tables::walkHashed(
        notes.file(),
        [&](Words words) {
          const auto note = noteOf<WaitNote, Tables::kWaitNoteWords>(words);
          waits.push_back(fmt::format("the agent waits, for {:.1f} s: {}", secondsSince(note.since),
                                      textOf(note.text)));
        },
        [](const std::string&) {});
  } catch (const Fenrik::Exception&) {
    // Damage is reported where all files are read.
  }
  return waits;
}

}  // namespace Ctl
