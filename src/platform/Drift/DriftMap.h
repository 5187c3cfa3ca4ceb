#pragma once

#include <memory>
#include <vector>

#include "Drift/DenseCollection.h"
#include "Drift/HashedCollection.h"
#include "Drift/IterHint.h"
#include "Drift/RecordLayout.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/String.h"

namespace Drift {

/// The untyped side of a collection's map: it keeps note of the damage that was met.
class QUARNBASTIL_EXPORT DriftMapBase : public Fenrik::Node {
 public:
  explicit DriftMapBase(Fenrik::String collection) : collection_(std::move(collection)) {}
  ~DriftMapBase() override;

  /// Takes note that a read found the collection corrupt; `message` is the exception's.
  void doCorruptionDetected(const Fenrik::String& message);

  /// What was noted so far: how often, and the place that the last message named.
  struct Corruption {
    Fenrik::String collection;
    unsigned long long count = 0;
    Fenrik::String lastMessage;
  };
  Corruption corruption() const { return {collection_, corruptionCount_, lastMessage_}; }

  const Fenrik::String& collection() const noexcept { return collection_; }

 private:
  Fenrik::String collection_;
  unsigned long long corruptionCount_ = 0;
  Fenrik::String lastMessage_;
};

/// Reads a collection of `Record`s in shared memory. No call keeps a pointer into shared memory.
///
/// Threads: one; other processes read beside it. A read that meets damage raises
/// `Fenrik::CorruptionDetectedException`.
template <class Record>
class QUARNBASTIL_EXPORT DriftMap : public DriftMapBase {
 public:
  using Key = typename RecordLayout<Record>::Key;

  /// A step of a walk: where it stands, and a copy of the record there.
  struct Cursor {
    IterHint hint;
    Record record{};
  };

  using DriftMapBase::DriftMapBase;

  /// Number of records.
  virtual Format::Word driftMapSize() const = 0;
  /// The record of the key, or a default record with `found` false. The reference holds until the
  /// next look-up in this map.
  virtual const Record& driftMapFind(const Key& key, bool& found, IterHint hint = 0) const = 0;
  /// Puts the cursor on the first record; false if there is none.
  virtual bool driftMapIterBegin(Cursor& cursor) const = 0;
  /// Puts the cursor on the record behind the one of key `current`, which need not be there any
  /// more; false at the end. A record that is there throughout a walk is met exactly once.
  virtual bool driftMapIterNext(const Key& current, Cursor& cursor) const = 0;

 protected:
  using Layout = RecordLayout<Record>;
  using Buffer = std::array<Format::Word, Layout::kWords>;
  using KeyBuffer = std::array<Format::Word, Layout::kKeyWords>;

  static KeyBuffer keyBuffer(const Key& key) {
    KeyBuffer words;
    Layout::keyToWords(key, words.data());
    return words;
  }

  const Record& foundIs(bool found, const Buffer& words) const {
    if (found) {
      Layout::fromWords(words.data(), found_);
    } else {
      found_ = Record{};
    }
    return found_;
  }

 private:
  mutable Record found_{};
};

/// A hashed collection, read.
template <class Record>
class QUARNBASTIL_EXPORT HashedMap final
    : public Fenrik::NodeClass<HashedMap<Record>, DriftMap<Record>> {
  using Node = Fenrik::NodeClass<HashedMap<Record>, DriftMap<Record>>;
  using Base = DriftMap<Record>;
  using typename Base::Layout;

 public:
  using typename Base::Cursor;
  using typename Base::Key;

  explicit HashedMap(const DriftFile& file) : Node(file.path().c_str()), view_(file) {}

  Format::Word driftMapSize() const override { return view_.size(); }

  const Record& driftMapFind(const Key& key, bool& found, IterHint) const override {
    typename Base::Buffer words;
    found = false;
    found = view_.find(this->keyBuffer(key), words);
    return this->foundIs(found, words);
  }

  bool driftMapIterBegin(Cursor& cursor) const override { return step(WalkPosition{}, {}, cursor); }

  bool driftMapIterNext(const Key& current, Cursor& cursor) const override {
    const auto key = this->keyBuffer(current);
    return step(
        cursor.hint.known_ ? WalkPosition{cursor.hint.bucket_, true} : view_.positionOf(key), key,
        cursor);
  }

 private:
  bool step(WalkPosition position, KeyWords after, Cursor& cursor) const {
    typename Base::Buffer words;
    if (!view_.next(position, after, words)) return false;
    Layout::fromWords(words.data(), cursor.record);
    cursor.hint.bucket_ = position.bucket;
    cursor.hint.known_ = true;
    return true;
  }

  HashedView view_;
};

/// A dense collection, read; its records come in ascending order of version.
template <class Record>
class QUARNBASTIL_EXPORT DenseMap final
    : public Fenrik::NodeClass<DenseMap<Record>, DriftMap<Record>> {
  using Node = Fenrik::NodeClass<DenseMap<Record>, DriftMap<Record>>;
  using Base = DriftMap<Record>;
  using typename Base::Layout;

 public:
  using typename Base::Cursor;
  using typename Base::Key;

  explicit DenseMap(const DriftFile& file) : Node(file.path().c_str()), view_(file) {}

  Format::Word driftMapSize() const override { return view_.size(); }

  const Record& driftMapFind(const Key& key, bool& found, IterHint) const override {
    typename Base::Buffer words;
    found = false;
    found = view_.find(this->keyBuffer(key)[0], words) == DenseRead::found;
    return this->foundIs(found, words);
  }

  bool driftMapIterBegin(Cursor& cursor) const override { return from(0, cursor); }

  bool driftMapIterNext(const Key& current, Cursor& cursor) const override {
    const Format::Word behind = this->keyBuffer(current)[0] + 1;
    return behind != 0 && from(behind, cursor);
  }

 private:
  bool from(Format::Word version, Cursor& cursor) const {
    typename Base::Buffer words;
    if (!view_.findFrom(version, words)) return false;
    Layout::fromWords(words.data(), cursor.record);
    return true;
  }

  DenseView view_;
};

}  // namespace Drift
