#include "agent/Notes.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>

#include "Fenrik/Assert.h"

namespace Agent {
namespace {

using Tables::NextHopNote;
using Tables::WaitNote;
using Tables::Word;

constexpr Word kMostNextHops = 65536;
constexpr Word kMostGroups = 16;

Drift::Geometry geometryOf(const Tables::Shape& shape, std::string_view attribute, Word capacity) {
  return {shape.layout, shape.keySize, shape.recordSize, capacity, shape.typeName, attribute};
}

Word millisecondsOf(std::chrono::nanoseconds time) {
  return static_cast<Word>(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

std::chrono::nanoseconds now() { return std::chrono::system_clock::now().time_since_epoch(); }

template <std::size_t size>
void textIs(std::array<char, size>& to, const std::string& text) {
  to.fill(0);
  std::copy_n(text.begin(), std::min(text.size(), size - 1), to.begin());
}

}  // namespace

struct Notes::File {
  File(const Drift::Directory& directory, std::string_view path, const Drift::Geometry& geometry)
      : file(Drift::DriftFile::openForWriting(directory, std::string(path), geometry, {})),
        writer(*file),
        scratchpad(file->data(), Drift::Format::Line::scratchpad) {
    FENRIK_ASSERT(scratchpad.adopt());
  }

  std::unique_ptr<Drift::DriftFile> file;
  Drift::HashedWriter writer;
  Drift::CheckedWordWriter scratchpad;
};

Notes::Notes(const std::string& path) {
  const Drift::Directory directory(path, Drift::Directory::Access::write);
  nextHopFile_ =
      std::make_unique<File>(directory, Tables::kNextHopNotes,
                             geometryOf(Tables::kNextHopNoteShape, "nextHops", kMostNextHops));
  waitFile_ = std::make_unique<File>(directory, Tables::kWaitNotes,
                                     geometryOf(Tables::kWaitNoteShape, "waits", kMostGroups));
  waitFile_->writer.removeAll();
  atRestIs(false);
  const auto records = nextHopFile_->writer.recordsWhere([](const std::byte*) { return true; });
  for (const auto& record : records) {
    std::array<Word, Tables::kNextHopNoteWords> words{};
    std::copy_n(record.begin(), std::min(record.size(), words.size()), words.begin());
    const auto note = std::bit_cast<NextHopNote>(words);
    nextHops_[note.id].note = note;
  }
}

Notes::~Notes() = default;

void Notes::atRestIs(bool atRest) {
  nextHopFile_->scratchpad.set(atRest ? Tables::kNotesAtRest : 0);
}

void Notes::nextHopIs(NextHopNote note, const std::string& name) {
  Stored& stored = nextHops_[note.id];
  textIs(note.name, name);
  const bool updated = stored.note.id == 0 || stored.note.update != note.update;
  note.updatedAt = updated ? millisecondsOf(now()) : stored.note.updatedAt;
  stored.current = true;
  if (std::memcmp(&stored.note, &note, sizeof note) == 0) return;
  stored.note = note;
  nextHopFile_->writer.set(std::bit_cast<std::array<Word, Tables::kNextHopNoteWords>>(note));
}

void Notes::othersDel() {
  for (auto at = nextHops_.begin(); at != nextHops_.end();) {
    if (std::exchange(at->second.current, false)) {
      ++at;
    } else {
      nextHopFile_->writer.remove({&at->first, 1});
      at = nextHops_.erase(at);
    }
  }
}

void Notes::waitIs(unsigned group, const std::string& text, std::chrono::nanoseconds age) {
  if (group >= kMostGroups) return;
  std::string& former = waits_[group];
  if (former == text) return;
  former = text;
  WaitNote note;
  note.group = group;
  note.since = millisecondsOf(now() - age);
  textIs(note.text, text);
  if (text.empty()) {
    waitFile_->writer.remove({&note.group, 1});
  } else {
    waitFile_->writer.set(std::bit_cast<std::array<Word, Tables::kWaitNoteWords>>(note));
  }
}

}  // namespace Agent
