#pragma once

#include <memory>

#include "Drift/DriftMap.h"
#include "Fenrik/Format.h"
#include "KivSharedMem/Entity.h"

namespace KivSharedMem {

/// An entity with one hashed collection; records are accessed as words.
class QUARNBASTIL_EXPORT HashedEntity : public Entity {
 public:
  ~HashedEntity() override;

  const Drift::HashedView& view() const noexcept { return view_; }
  /// REQUIRES: mounted for writing.
  Drift::HashedWriter& writer();
  const Drift::HashedWriter& writer() const;

  /// Counts damage found in the collection: the typed map if there is one.
  Drift::DriftMapBase& damage() noexcept { return *damage_; }
  /// Notes index words that the writer has dropped since the last call: a dropped record is damage
  /// even if nobody was reading it.
  void noteDropped();

 protected:
  HashedEntity(Fenrik::String path, std::unique_ptr<Drift::DriftFile> file);

  void damageIs(Fenrik::Ptr<Drift::DriftMapBase> map);

 private:
  Fenrik::Ptr<Drift::DriftMapBase> damage_;
  Drift::HashedView view_;
  std::unique_ptr<Drift::HashedWriter> writer_;
  /// Dropped index words already noted.
  Drift::Word dropped_ = 0;
};

/// An entity with one dense collection; records are accessed as words, keys are versions.
class QUARNBASTIL_EXPORT DenseEntity : public Entity {
 public:
  ~DenseEntity() override;

  const Drift::DenseView& view() const noexcept { return view_; }
  /// REQUIRES: mounted for writing.
  Drift::DenseWriter& writer();

  Drift::DriftMapBase& damage() noexcept { return *damage_; }

  /// Number of records. The writer knows it without reading shared memory. A reader may throw
  /// `Fenrik::CorruptionDetectedException`.
  Drift::Word records() const { return writer_ != nullptr ? writer_->size() : view_.size(); }

 protected:
  DenseEntity(Fenrik::String path, std::unique_ptr<Drift::DriftFile> file);

  void damageIs(Fenrik::Ptr<Drift::DriftMapBase> map) { damage_ = std::move(map); }

 private:
  Fenrik::Ptr<Drift::DriftMapBase> damage_;
  Drift::DenseView view_;
  std::unique_ptr<Drift::DenseWriter> writer_;
};

/// Entities created by a mount for types without a class of their own.
class QUARNBASTIL_EXPORT UntypedHashed final
    : public Fenrik::NodeClass<UntypedHashed, HashedEntity> {
 public:
  UntypedHashed(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file);
  ~UntypedHashed() override;
};
class QUARNBASTIL_EXPORT UntypedDense final : public Fenrik::NodeClass<UntypedDense, DenseEntity> {
 public:
  UntypedDense(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file);
  ~UntypedDense() override;
};

/// A hashed collection of `Record`s. `Self` is the final class; its public operations are named
/// after its attribute.
template <class Self, class Record>
class QUARNBASTIL_EXPORT HashedCollection : public Fenrik::NodeClass<Self, HashedEntity> {
 public:
  using Map = Drift::DriftMap<Record>;
  using Layout = Drift::RecordLayout<Record>;
  static constexpr Drift::Format::Layout kLayout = Drift::Format::Layout::hashed;

  HashedCollection(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file)
      : Fenrik::NodeClass<Self, HashedEntity>(path, std::move(file)),
        map_(Fenrik::ptrIsImpl<Drift::HashedMap<Record>>(this->file())) {
    this->damageIs(map_);
  }

  const Fenrik::Ptr<Map>& map() const noexcept { return map_; }

 protected:
  void recordIs(const Record& record) {
    store([&](Drift::Word* words) { Layout::toWords(record, words); });
  }
  /// As above, for a record given as its fields.
  template <class... Parts>
  void recordOfPartsIs(const Parts&... parts) {
    store([&](Drift::Word* words) { Layout::partsToWords(words, parts...); });
  }
  void recordDel(const typename Layout::Key& key) {
    this->writer().remove(wordsOf(key));
    this->noteDropped();
  }
  void recordDelAll() { this->writer().removeAll(); }
  void recordRoom(const typename Layout::Key& key) {
    this->writer().makeRoom(wordsOf(key));
    this->noteDropped();
  }
  void replacementRoom() { this->writer().makeRoom(0, 1); }
  void recordPrefetch(const typename Layout::Key& key, bool near) const noexcept {
    this->writer().prefetch(wordsOf(key), near);
    if (near) this->writer().prefetchSlot(1);
  }

 private:
  static std::array<Drift::Word, Layout::kKeyWords> wordsOf(const typename Layout::Key& key) {
    std::array<Drift::Word, Layout::kKeyWords> words;
    Layout::keyToWords(key, words.data());
    return words;
  }

  template <class Fill>
  void store(Fill fill) {
    std::array<Drift::Word, Layout::kWords> words;
    fill(words.data());
    this->writer().set(words);
    this->noteDropped();
  }

  Fenrik::Ptr<Map> map_;
};

/// A dense collection of `Record`s.
template <class Self, class Record>
class QUARNBASTIL_EXPORT DenseCollection : public Fenrik::NodeClass<Self, DenseEntity> {
 public:
  using Map = Drift::DriftMap<Record>;
  using Layout = Drift::RecordLayout<Record>;
  static constexpr Drift::Format::Layout kLayout = Drift::Format::Layout::dense;

  DenseCollection(const Fenrik::String& path, std::unique_ptr<Drift::DriftFile> file)
      : Fenrik::NodeClass<Self, DenseEntity>(path, std::move(file)),
        map_(Fenrik::ptrIsImpl<Drift::DenseMap<Record>>(this->file())) {
    this->damageIs(map_);
  }

  const Fenrik::Ptr<Map>& map() const noexcept { return map_; }

 protected:
  void recordIs(const Record& record) {
    store([&](Drift::Word* words) { Layout::toWords(record, words); });
  }
  /// As above, for a record given as its fields.
  template <class... Parts>
  void recordOfPartsIs(const Parts&... parts) {
    store([&](Drift::Word* words) { Layout::partsToWords(words, parts...); });
  }
  void recordDel(Drift::Word version) { this->writer().remove(version); }
  void recordDelAll() { this->writer().removeAll(); }
  void recordRoom() { this->writer().makeRoom(); }

 private:
  template <class Fill>
  void store(Fill fill) {
    std::array<Drift::Word, Layout::kWords> words;
    fill(words.data());
    this->writer().set(words);
  }

  Fenrik::Ptr<Map> map_;
};

/// Registers entity classes over hashed or dense collections under their names,
/// `Self::kEntityName`.
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
