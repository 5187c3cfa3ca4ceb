#include "Drift/ModelRun.h"

#include <algorithm>
#include <stdexcept>

namespace Drift::Specimens {

ModelRun::ModelRun(const Geometry& geometry, Choose choose)
    : geometry_(geometry), choose_(std::move(choose)) {
  mount();
}

void ModelRun::expect(bool holds, const char* what) const {
  if (!holds) throw std::logic_error(what);
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
  return *CheckedWord(file_->data(), Format::Line::active).load() >> 1;
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
    writer_->set(record);
    expect(fit, "a record was taken that there was no room for");
  } catch (const CollectionFullException&) {
    expect(!fit, "a collection with room said that it is full");
    ++fulls_;
    return;
  }
  next_ = model_.empty() ? number + 1 : std::max(next_, number + 1);
  model_[key] = record;
}

void ModelRun::remove(Word number) {
  const Record key = keyOf(geometry_, number);
  expect(writer_->remove(key) == (model_.erase(key) != 0), "a removal found something else");
}

void ModelRun::removeAll() {
  writer_->removeAll();
  model_.clear();
}

void ModelRun::find(Word number) {
  const Record key = keyOf(geometry_, number);
  Record out(wordsOf(geometry_.recordSize));
  const auto at = model_.find(key);
  bool found = false;
  if (dense()) {
    const DenseRead read = writer_->dense->view().find(number, out);
    found = read == DenseRead::found;
    expect(found || (read == DenseRead::notYet) == (number >= next_), "absent for a wrong reason");
  } else {
    found = writer_->hashed->view().find(key, out);
  }
  expect(found == (at != model_.end()), "a key is there, or is not");
  expect(!found || out == at->second, "a key has another record");
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
    expect(sight.complaint.empty(), sight.complaint.c_str());
    expect(sight.errors == 0, "damage was found in a sound collection");
    expect(sight.missing == 0, "a record is missing");
    walkFrom(*file, pickNumber());
  }
  const DenseView* const view = dense() ? &writer_->dense->view() : nullptr;
  const Word size = view != nullptr ? view->size() : writer_->hashed->view().size();
  expect(size == model_.size(), "another number of records");
  expect(view == nullptr || writer_->dense->next() == next_, "the next version is another");
}

/// A walk from behind any key, there or not, gives what lies behind it in the promised order.
void ModelRun::walkFrom(const DriftFile& file, Word number) {
  const Record from = keyOf(geometry_, number);
  const auto home = [&](const Record& key) {
    return dense() ? 0 : hashKey(key, file.header().hashSeed) & (file.header().indexWords - 1);
  };
  std::vector<std::pair<Word, Record>> expected;
  for (const auto& [key, record] : model_) {
    const std::pair<Word, Record> place{home(key), key};
    if (place > std::pair(home(from), from)) expected.push_back(place);
  }
  std::ranges::sort(expected);
  Record out(wordsOf(geometry_.recordSize));
  if (dense()) {
    Word version = number + 1;
    const DenseView view(file);
    for (const auto& [bucket, key] : expected) {
      expect(view.findFrom(version, out) && version++ == key[0], "a walk leaves its order");
    }
    expect(!view.findFrom(version, out), "a walk does not end");
    return;
  }
  const HashedView view(file);
  WalkPosition position = view.positionOf(from);
  Record after = from;
  for (const auto& [bucket, key] : expected) {
    expect(view.next(position, after, out), "a walk ends early");
    after.assign(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(key.size()));
    expect(after == key, "a walk leaves its order");
  }
  expect(!view.next(position, after, out), "a walk does not end");
}

}  // namespace Drift::Specimens
