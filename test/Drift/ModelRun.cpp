#include "Drift/ModelRun.h"

namespace Drift::Specimens {

namespace {

void expect(bool holds, const char* what) {
  if (!holds) fault("{}", what);
}

}  // namespace

ModelRun::ModelRun(const Geometry& geometry, Choose choose)
    : geometry_(geometry), choose_(std::move(choose)) {
  mount();
}

void ModelRun::mount() {
  writer_.reset();
  file_.reset();
  file_ = DriftFile::openForWriting(directory_, "run", geometry_, {.reserveAll = choose_(8) == 0});
  expect(file_->reason().view().empty(), "a mount rebuilt the collection");
  writer_ = std::make_unique<AnyWriter>(*file_);
  expect(writer_->dropped() == 0, "a mount dropped something");
}

Word ModelRun::tableSwitches() const {
  const Word active = *CheckedWord(file_->data(), Format::Line::active).load();
  return Format::ActiveIndex::from(active).switches;
}

/// Hashed: somewhat more keys than there is room for. Dense: around the window.
Word ModelRun::pickNumber() {
  if (!dense()) return choose_(geometry_.capacity * 4 / 3 + 2);
  const Word low = model_.empty() ? next_ : model_.begin()->first[0];
  switch (choose_(8)) {
    case 0:
      return low - std::min(low, choose_(4));
    case 1:
      return next_ + choose_(4);
    case 2:
    case 3:
      return low + choose_(next_ - low + 1);
    default:
      return next_;
  }
}

bool ModelRun::fits(Word number) const {
  if (model_.empty()) return true;
  if (!dense()) {
    return model_.contains(keyOf(geometry_, number)) || model_.size() < geometry_.capacity;
  }
  const Word first = std::min(model_.begin()->first[0], number);
  return std::max(next_, number + 1) - first <= file_->header().slotCount;
}

void ModelRun::set(Word number) {
  const Record key = keyOf(geometry_, number);
  const Record record = recordOf(geometry_, key, ++salt_);
  const bool fit = fits(number);
  try {
    store(key, record);
    expect(fit, "a record was taken that there was no room for");
  } catch (const CollectionFullException&) {
    expect(!fit, "a collection with room said that it is full");
    ++fulls_;
    return;
  }
  next_ = model_.empty() ? number + 1 : std::max(next_, number + 1);
  model_[key] = record;
}

/// In one of the forms of storing, which all do the same.
void ModelRun::store(const Record& key, const Record& record) {
  const std::size_t size = record.size() * sizeof(Word);
  const std::size_t border = choose_(size + 1);
  const auto* const bytes = reinterpret_cast<const std::byte*>(record.data());
  const Piece pieces[] = {{0, bytes, border}, {border, bytes + border, size - border}};
  const bool there = model_.contains(key);
  switch (choose_(3)) {
    case 0:
      return writer_->set(record);
    case 1:
      if (dense()) return writer_->dense->set(key[0], pieces);
      expect(writer_->hashed->set(key, pieces) == there, "a store found something else");
      return;
    default:
      if (dense()) return writer_->dense->set(key[0], pieces);
      writer_->hashed->makeRoom(there ? 0 : 1, there ? 1 : 0);
      const auto place = writer_->hashed->lookUp(key);
      expect(place.found() == there, "a writer's look-up found something else");
      expect(!there || std::ranges::equal(model_[key],
                                          std::span(writer_->hashed->record(place), record.size())),
             "a writer reads another record than it wrote");
      writer_->hashed->set(place, pieces);
  }
}

void ModelRun::remove(Word number) {
  const Record key = keyOf(geometry_, number);
  expect(writer_->remove(key) == (model_.erase(key) != 0), "a removal found something else");
}

void ModelRun::removeThrough(Word version) {
  writer_->dense->removeThrough(version);
  model_.erase(model_.begin(), model_.upper_bound({version}));
}

/// What room is promised for is what there is room for.
void ModelRun::makeRoom(Word count) {
  const Word first = model_.empty() ? next_ : model_.begin()->first[0];
  const bool fit = dense() ? next_ + count - first <= file_->header().slotCount
                           : model_.size() + count <= geometry_.capacity;
  try {
    dense() ? writer_->dense->makeRoom(count) : writer_->hashed->makeRoom(count, choose_(200));
    expect(fit, "room was promised that there is not");
  } catch (const CollectionFullException&) {
    expect(!fit, "room was refused that there is");
  }
}

void ModelRun::removeAll() {
  writer_->removeAll();
  model_.clear();
}

void ModelRun::find(Word number) {
  const Record key = keyOf(geometry_, number);
  const auto at = model_.find(key);
  AnyView view(*file_);
  const DenseRead read = view.findOrWhy(key);
  const bool found = read == DenseRead::found;
  expect(found == (at != model_.end()), "a key is there, or is not");
  expect(!found || view.bytes == at->second, "a key has another record");
  expect(found || (read == DenseRead::notYet) == (dense() && number >= next_),
         "absent for a wrong reason");
}

void ModelRun::step() {
  // Phases that fill and phases that empty, so that both ends are reached.
  const bool filling = (salt_ / (4 * geometry_.capacity)) % 2 == 0;
  const Word what = choose_(1000);
  if (what < 3) {
    // Rarely enough for a large collection to become full in between.
    if (choose_(geometry_.capacity / 64 + 1) == 0) removeAll();
  } else if (what < 8) {
    mount();
  } else if (what < 18) {
    if (choose_(geometry_.capacity / 256 + 1) == 0) check();
  } else if (what < 200) {
    find(pickNumber());
  } else if (what < (filling ? 920U : 500U)) {
    set(pickNumber());
  } else if (choose_(32) == 0) {
    makeRoom(choose_(geometry_.capacity) + 1);
  } else if (dense() && choose_(16) == 0) {
    removeThrough(pickNumber());
    ++salt_;
  } else if (dense() && !model_.empty() && choose_(4) != 0) {
    remove(model_.begin()->first[0]);
    ++salt_;
  } else {
    remove(pickNumber());
    ++salt_;
  }
}

void ModelRun::check() {
  for (const auto& file : {DriftFile::openForReading(directory_, "run", nullptr),
                           DriftFile::openForReading(directory_, "run", &geometry_)}) {
    const Sight sight = look(*file, model_);
    expect(sight.sound(), sight.text().c_str());
    walkFrom(*file, pickNumber());
  }
  expect(writer_->size() == model_.size(), "another number of records");
  expect(!dense() || writer_->dense->next() == next_, "the next version is another");
  const std::size_t behindKey = wordsOf(geometry_.keySize);
  if (dense() || behindKey == wordsOf(geometry_.recordSize)) return;
  std::map<Word, Record> young;
  const Word salt = salt_ - std::min<Word>(salt_, 5);
  for (const auto& [key, record] : model_) {
    if (record[behindKey] > salt) young[record[behindKey]] = record;
  }
  const auto found = writer_->hashed->beyond(behindKey * sizeof(Word), salt);
  expect(std::ranges::equal(found, young, {}, {}, [](const auto& entry) { return entry.second; }),
         "the youngest records are others");
}

/// A walk from behind any key, there or not, gives what lies behind it in the promised order.
void ModelRun::walkFrom(const DriftFile& file, Word number) {
  const auto placeOf = [&](const Record& key) {
    return std::pair(dense() ? 0 : hashKey(key, file.header().hashSeed), key);
  };
  const Record from = keyOf(geometry_, number);
  std::vector<std::pair<Word, Record>> expected;
  for (const auto& [key, record] : model_) {
    if (placeOf(key) > placeOf(from)) expected.push_back(placeOf(key));
  }
  std::ranges::sort(expected);
  AnyView view(file);
  view.walkFrom(from);
  for (const auto& [hash, key] : expected) {
    expect(view.next() && view.after == key, "a walk leaves its order");
  }
  expect(!view.next(), "a walk does not end");
}

}  // namespace Drift::Specimens
