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

/// The untyped part of a collection's map: counts the corruption found by reads.
class QUARNBASTIL_EXPORT DriftMapBase : public Fenrik::Node {
 public:
  explicit DriftMapBase(Fenrik::String collection) : collection_(std::move(collection)) {}
  ~DriftMapBase() override;

  /// Notes that a read found the collection corrupt. `message` is the exception's.
  void doCorruptionDetected(const Fenrik::String& message);

  /// Corruption noted so far: number of cases, and the last message.
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

/// Reads a collection of `Record`s in shared memory. No pointer into shared memory outlives a call.
///
/// Threads: one. Other processes may read at the same time. A read that meets damage throws
/// `Fenrik::CorruptionDetectedException`.
template <class Record>
class QUARNBASTIL_EXPORT DriftMap : public DriftMapBase {
 public:
  using Key = typename RecordLayout<Record>::Key;

  /// Position of a walk, with a copy of the record there.
  struct Cursor {
    IterHint hint;
    Record record{};
  };

  using DriftMapBase::DriftMapBase;

  /// Number of records.
  virtual Format::Word driftMapSize() const = 0;
  /// The key's record, or a default record with `found` false. The reference is valid until the
  /// next look-up in this map.
  virtual const Record& driftMapFind(const Key& key, bool& found, IterHint hint = 0) const = 0;
  /// Moves the cursor to the first record. False if there is none.
  virtual bool driftMapIterBegin(Cursor& cursor) const = 0;
  /// Moves the cursor to the record after `current`, whose record need not exist any more. False at
  /// the end. A record that exists throughout a walk is visited exactly once.
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

/// Reads a hashed collection.
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
    return step(cursor.hint.known_ ? WalkPosition{cursor.hint.hash_, true} : view_.positionOf(key),
                key, cursor);
  }

 private:
  bool step(WalkPosition position, KeyWords after, Cursor& cursor) const {
    typename Base::Buffer words;
    if (!view_.next(position, after, words)) return false;
    Layout::fromWords(words.data(), cursor.record);
    cursor.hint.hash_ = position.hash;
    cursor.hint.known_ = true;
    return true;
  }

  HashedView view_;
};

/// Reads a dense collection, in ascending order of version.
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
