#include "Drift/ChunkRing.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "Drift/Header.h"

namespace Drift {

namespace {

/// Free chunks that keep their memory: enough for a window that grows and shrinks by some thousands
/// of records between two reports.
constexpr std::size_t kWarmChunks = 4;

}  // namespace

Word chunkWord(Word place, Word chunk) noexcept {
  return Word{Seal::kLoops.words(chunk + 1, Format::kChunkMark, place)} << 32 | (chunk + 1);
}

ChunkTable::ChunkTable(const DriftFile& file)
    : table_(file.words(Format::kHeaderSize)),
      slots_(file.data() + file.header().slotsOffset),
      shift_(static_cast<unsigned>(std::countr_zero(slotsPerChunk(file.header())))),
      mask_(file.header().indexWords - 1),
      chunkBytes_(chunkBytes(file.header())),
      stride_(file.header().slotStride) {}

bool ChunkTable::proves(Word version) const noexcept {
  const Word place = version >> shift_ & mask_;
  const Word word = loadWord(table_ + place);
  return word == chunkWord(place, (word & 0xffffffff) - 1);
}

ChunkRing::ChunkRing(DriftFile& file)
    : file_(file), table_(file), chunks_(table_.mask_ + 1, kNone) {
  // Reserved, so that no later operation allocates.
  bare_.reserve(chunks_.size());
  warm_.reserve(chunks_.size());
}

void ChunkRing::wordIs(Word place, Word word) noexcept {
  Word* const at = const_cast<Word*>(table_.table_) + place;
  if (loadWord(at) != word) storeWord(at, word);
}

void ChunkRing::takeOver(Word first, Word next) {
  std::vector<bool> used(chunks_.size());
  from_ = to_ = chunkOf(first);
  if (first != next) to_ = chunkOf(next - 1) + 1;
  // In a full ring, both ends of the window are in the same chunk.
  const Word end = std::min(to_, from_ + chunks_.size());
  for (Word number = from_; number < end; ++number) adopt(number & table_.mask_, used);
  for (Word number = from_; number < end; ++number) recover(number, first, next, used);
  for (Word place = 0; place < chunks_.size(); ++place) {
    if (chunks_[place] == kNone) wordIs(place, 0);
  }
  bare_.clear();
  for (Word chunk = used.size(); chunk-- > 0;) {
    if (!used[chunk]) bare_.push_back(static_cast<std::uint32_t>(chunk));
  }
  bareSince_ = DriftFile::moment();
  giveBackSurplus();
}

/// Takes a table entry over if its checksum is correct and no other entry refers to its chunk.
void ChunkRing::adopt(Word place, std::vector<bool>& used) {
  const Word word = loadWord(table_.table_ + place);
  const Word chunk = (word & 0xffffffff) - 1;
  if (chunk >= chunks_.size() || word != chunkWord(place, chunk) || used[chunk]) return;
  used[chunk] = true;
  chunks_[place] = static_cast<std::uint32_t>(chunk);
}

/// Recovers a damaged entry: its chunk is the one that contains one of its versions. If there is
/// none, its versions are lost and a new chunk is assigned.
void ChunkRing::recover(Word number, Word first, Word next, std::vector<bool>& used) {
  const Word place = number & table_.mask_;
  if (chunks_[place] != kNone) return;
  const Word begin = std::max(first, number << table_.shift_);
  const Word end = std::min(next, (number + 1) << table_.shift_);
  Word chunk = 0;
  while (chunk < chunks_.size() && (used[chunk] || !(holds(chunk, begin) || holds(chunk, end - 1))))
    ++chunk;
  if (chunk == chunks_.size()) {
    chunk = static_cast<Word>(std::ranges::find(used, false) - used.begin());
    file_.reserve(offsetOf(chunk), table_.chunkBytes_);
  }
  used[chunk] = true;
  chunks_[place] = static_cast<std::uint32_t>(chunk);
  wordIs(place, chunkWord(place, chunk));
}

bool ChunkRing::holds(Word chunk, Word version) const noexcept {
  const auto* const slot = reinterpret_cast<const std::byte*>(table_.slotIn(chunk, version));
  Word seal = 0;
  return file_.read(static_cast<Word>(slot - file_.data()), &seal, sizeof seal) &&
         Seal::lowOf(seal) == static_cast<std::uint32_t>(version);
}

/// Frees unneeded memory that no reader can still be reading.
void ChunkRing::giveBackSurplus() noexcept {
  if (bareSince_ != 0 && file_.leftSince(bareSince_)) {
    bareSince_ = 0;
    // Numbers are in descending order; adjacent chunks are freed by one call.
    for (std::size_t i = 0; i < bare_.size();) {
      std::size_t end = i + 1;
      while (end < bare_.size() && bare_[end] + 1 == bare_[end - 1]) ++end;
      file_.giveBack(offsetOf(bare_[end - 1]), (end - i) * table_.chunkBytes_);
      i = end;
    }
  }
  while (warm_.size() > kWarmChunks && file_.leftSince(warm_.front().since)) {
    const std::uint32_t chunk = warm_.front().chunk;
    warm_.erase(warm_.begin());
    file_.giveBack(offsetOf(chunk), table_.chunkBytes_);
    bare_.push_back(chunk);
  }
}

void ChunkRing::reserveFor(Word firstVersion, Word lastVersion) {
  const Word begin = chunkOf(firstVersion);
  const Word end = chunkOf(lastVersion) + 1;
  if (from_ == to_) from_ = to_ = begin;
  for (; to_ < end; ++to_) assign(to_);
  for (; from_ > begin; --from_) assign(from_ - 1);
}

void ChunkRing::assign(Word number) {
  const Word place = number & table_.mask_;
  if (chunks_[place] != kNone) return;
  std::uint32_t chunk = 0;
  if (!warm_.empty()) {
    chunk = warm_.back().chunk;
    warm_.pop_back();
  } else {
    chunk = bare_.back();
    file_.reserve(offsetOf(chunk), table_.chunkBytes_);
    bare_.pop_back();
  }
  chunks_[place] = chunk;
  wordIs(place, chunkWord(place, chunk));
  giveBackSurplus();
}

void ChunkRing::releaseBefore(Word version) noexcept {
  for (const Word end = std::min(chunkOf(version), to_); from_ < end; ++from_) release(from_);
}

void ChunkRing::releaseBehind(Word version) noexcept {
  for (const Word end = std::max(chunkOf(version) + 1, from_); to_ > end; --to_) release(to_ - 1);
}

/// Drops the chunk at one end, unless the other end of a full ring shares it.
void ChunkRing::release(Word number) noexcept {
  if (to_ - from_ > chunks_.size()) return;
  const Word place = number & table_.mask_;
  wordIs(place, 0);
  warm_.push_back({std::exchange(chunks_[place], kNone), DriftFile::moment()});
  giveBackSurplus();
}

}  // namespace Drift
