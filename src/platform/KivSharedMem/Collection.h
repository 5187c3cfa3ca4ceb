#pragma once

#include <memory>

#include "Drift/DriftMap.h"
#include "Fenrik/Format.h"
#include "KivSharedMem/Entity.h"

namespace KivSharedMem {

/// An entity with one hashed collection of `Record`s. `Self` is the final class, which names its
/// operations after its attribute.
template <class Self, class Record>
class QUARNBASTIL_EXPORT HashedCollection : public Fenrik::NodeClass<Self, Entity> {
 public:
  using Map = Drift::DriftMap<Record>;
  using Layout = Drift::RecordLayout<Record>;
  static constexpr Drift::Format::Layout kLayout = Drift::Format::Layout::hashed;

  HashedCollection(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file)
      : Fenrik::NodeClass<Self, Entity>(path, std::move(file)),
        map_(new Drift::HashedMap<Record>(this->file()), Fenrik::AdoptReference{}) {
    if (this->file().writable()) {
      writer_ = std::make_unique<Drift::HashedWriter>(this->mutableFile());
      noteDropped();
    }
  }

  const Fenrik::Ptr<Map>& map() const noexcept { return map_; }

 protected:
  void recordIs(const Record& record) {
    store([&](Drift::Word* words) { Layout::toWords(record, words); });
  }
  /// The same for a record that is given by the values of its fields.
  template <class... Parts>
  void recordOfPartsIs(const Parts&... parts) {
    store([&](Drift::Word* words) { Layout::partsToWords(words, parts...); });
  }
  void recordDel(const typename Layout::Key& key) {
    std::array<Drift::Word, Layout::kKeyWords> words;
    Layout::keyToWords(key, words.data());
    writer().remove(words);
    noteDropped();
  }
  void recordDelAll() { writer().removeAll(); }
  void recordRoom(const typename Layout::Key& key) {
    std::array<Drift::Word, Layout::kKeyWords> words;
    Layout::keyToWords(key, words.data());
    writer().makeRoom(words);
    noteDropped();
  }
  void recordPrefetch(const typename Layout::Key& key, bool near) const noexcept {
    std::array<Drift::Word, Layout::kKeyWords> words;
    Layout::keyToWords(key, words.data());
    writer_->prefetch(words, near);
  }
  /// Calls `visit` with the bytes of each slot as they are: of a record, of one that has gone, or
  /// of none. What they say is a hint, to be proved by a look-up.
  template <class Visit>
  void slotsPeek(Visit visit) const {
    for (Drift::Word slot = 0; slot < writer_->slots(); ++slot) {
      visit(reinterpret_cast<const std::byte*>(writer_->peek(slot)));
    }
  }
  void replacementRoom() { writer().makeRoom(); }

 private:
  Drift::HashedWriter& writer() {
    FENRIK_ASSERT(writer_ != nullptr);
    return *writer_;
  }

  template <class Fill>
  void store(Fill fill) {
    std::array<Drift::Word, Layout::kWords> words;
    fill(words.data());
    writer().set(words);
    noteDropped();
  }

  /// A record that the writer had to give up is damage too, though nobody was reading it.
  void noteDropped() {
    if (writer_->dropped() == dropped_) return;
    dropped_ = writer_->dropped();
    map_->doCorruptionDetected(Fenrik::formatString(
        "{}: {} index words did not prove themselves and were dropped", this->path(), dropped_));
  }

  Fenrik::Ptr<Map> map_;
  std::unique_ptr<Drift::HashedWriter> writer_;
  Drift::Word dropped_ = 0;
};

/// An entity with one dense collection of `Record`s, whose keys are versions.
template <class Self, class Record>
class QUARNBASTIL_EXPORT DenseCollection : public Fenrik::NodeClass<Self, Entity> {
 public:
  using Map = Drift::DriftMap<Record>;
  using Layout = Drift::RecordLayout<Record>;
  static constexpr Drift::Format::Layout kLayout = Drift::Format::Layout::dense;

  DenseCollection(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file)
      : Fenrik::NodeClass<Self, Entity>(path, std::move(file)),
        map_(new Drift::DenseMap<Record>(this->file()), Fenrik::AdoptReference{}) {
    if (!this->file().writable()) return;
    writer_ = std::make_unique<Drift::DenseWriter>(this->mutableFile());
    // The counter follows each record; a death between the two left it one behind. What was logged
    // counts, or its version would be issued a second time.
    const auto& control = this->collectionControl();
    if (control->scratchpad() + 1 < writer_->next()) control->scratchpadIs(writer_->next() - 1);
  }

  const Fenrik::Ptr<Map>& map() const noexcept { return map_; }

  /// Number of records. The one who writes knows it without a look at the shared memory.
  Drift::Word records() const {
    return writer_ != nullptr ? writer_->size() : map_->driftMapSize();
  }

 protected:
  void recordIs(const Record& record) {
    store([&](Drift::Word* words) { Layout::toWords(record, words); });
  }
  /// The same for a record that is given by the values of its fields.
  template <class... Parts>
  void recordOfPartsIs(const Parts&... parts) {
    store([&](Drift::Word* words) { Layout::partsToWords(words, parts...); });
  }
  void recordDel(Drift::Word version) { writer().remove(version); }
  void recordDelAll() { writer().removeAll(); }
  void recordRoom() { writer().makeRoom(); }

 private:
  Drift::DenseWriter& writer() {
    FENRIK_ASSERT(writer_ != nullptr);
    return *writer_;
  }

  template <class Fill>
  void store(Fill fill) {
    std::array<Drift::Word, Layout::kWords> words;
    fill(words.data());
    writer().set(words);
  }

  Fenrik::Ptr<Map> map_;
  std::unique_ptr<Drift::DenseWriter> writer_;
};

/// Enters classes over one of the two under their names, `Self::kEntityName`.
template <class... Selves>
class EntityRegistrations {
 public:
  EntityRegistrations() { (EntityRegistration(typeOf<Selves>()), ...); }

 private:
  template <class Self>
  static EntityType typeOf() {
    using Layout = typename Self::Layout;
    return {Self::kEntityName,
            Self::kAttributeName,
            Self::kLayout,
            Layout::kKeySize,
            Layout::kRecordSize,
            [](const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file) {
              return Fenrik::Ptr<Entity>(Fenrik::ptrIsImpl<Self>(path, std::move(file)));
            }};
  }
};

}  // namespace KivSharedMem
