#include "Stavro/EntityManager.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "Fenrik/Assert.h"
#include "Fenrik/Exception.h"
#include "Fenrik/Format.h"

namespace Stavro {

namespace {

using Layout = Drift::RecordLayout<StateRecord>;
using Words = std::array<Drift::Word, Layout::kWords>;
using KeyWords = std::array<Drift::Word, Layout::kKeyWords>;

constexpr Drift::Geometry kGeometry{Drift::Format::Layout::hashed, Layout::kKeySize,
                                    Layout::kRecordSize,           EntityManager::kCapacity,
                                    "Stavro::EntityManager",       "entities"};

KeyWords keyWordsOf(const Fenrik::String& path) {
  KeyWords words;
  Layout::keyToWords(StateKey::of(path.view()), words.data());
  return words;
}

template <std::size_t size>
std::string_view textOf(const std::array<char, size>& field) {
  return {field.data(), strnlen(field.data(), size)};
}

template <std::size_t size>
void textIs(std::array<char, size>& field, std::string_view text, const char* what) {
  if (text.size() >= size) {
    throw Fenrik::Exception(
        Fenrik::formatString("{} \"{}\" has {} bytes, the state database takes {}: shorten it",
                             what, text, text.size(), size - 1));
  }
  std::ranges::copy(text, field.begin());
}

std::map<std::string_view, EntityRegistration::Make>& makers() {
  static std::map<std::string_view, EntityRegistration::Make> all;
  return all;
}

std::string directoryOf(const Fenrik::String& name, const Fenrik::String& directory) {
  if (!directory.empty()) return directory.str();
  return "/dev/shm/" + Drift::Directory::fileNameOf(name.view());
}

}  // namespace

StateKey StateKey::of(std::string_view path) noexcept {
  // 64-bit FNV-1a (its published offset basis and prime), and a variant with another basis.
  constexpr std::uint64_t kPrime = 0x100000001b3;
  StateKey key{0xcbf29ce484222325, 0x84222325cbf29ce4};
  for (const char c : path) {
    key.high = (key.high ^ static_cast<unsigned char>(c)) * kPrime;
    key.low = (key.low ^ static_cast<unsigned char>(c)) * kPrime;
    key.low ^= key.low >> 29;
  }
  return key;
}

Entity::Entity(Fenrik::String path, EntityManager* manager)
    : path_(std::move(path)), manager_(manager) {}
Entity::~Entity() = default;

void Entity::store() {
  if (manager_ == nullptr) {
    throw Fenrik::Exception(
        Fenrik::formatString("{} cannot be changed: its state database is closed", path_));
  }
  manager_->entityStore(*this);
}

EntityRegistration::EntityRegistration(std::string_view typeName, Make make) {
  makers().emplace(typeName, make);
}

EntityRegistration::Make EntityRegistration::find(std::string_view typeName) {
  const auto found = makers().find(typeName);
  return found == makers().end() ? nullptr : found->second;
}

EntityManager::EntityManager(const Fenrik::String& name, bool local,
                             const Fenrik::String& directory, Drift::Directory::Access access)
    : name_(name), local_(local), directory_(directoryOf(name, directory), access) {
  if (access == Drift::Directory::Access::write) {
    file_ = Drift::DriftFile::openForWriting(directory_, kCollectionPath, kGeometry, {});
    writer_ = std::make_unique<Drift::HashedWriter>(*file_);
  } else {
    file_ = Drift::DriftFile::openForReading(directory_, kCollectionPath, &kGeometry);
  }
  view_ = std::make_unique<Drift::HashedView>(*file_);
}

EntityManager::~EntityManager() {
  // Entities may outlive the manager; without a manager they store nothing.
  for (const auto& [path, entity] : entities_) entity->manager_ = nullptr;
}

Fenrik::Ptr<Entity> EntityManager::getEntity(const Fenrik::String& path) const {
  Words words;
  if (!view_->find(keyWordsOf(path), words)) {
    entities_.erase(path);
    return nullptr;
  }
  StateRecord record;
  Layout::fromWords(words.data(), record);
  if (textOf(record.path) != path.view() || record.valueSize > record.value.size()) return nullptr;
  Fenrik::Ptr<Entity>& entity = entities_[path];
  if (entity == nullptr || entity->typeName() != textOf(record.typeName)) {
    const auto make = EntityRegistration::find(textOf(record.typeName));
    entity = make == nullptr ? nullptr : make(path, const_cast<EntityManager*>(this));
  }
  const auto value = std::span(record.value).first(record.valueSize);
  if (entity == nullptr || !entity->valueIs(value)) {
    entities_.erase(path);
    return nullptr;
  }
  return entity;
}

void EntityManager::entityStore(const Fenrik::Ptr<Entity>& entity) {
  entityStore(*entity);
  entities_[entity->path()] = entity;
}

void EntityManager::entityStore(const Entity& entity) {
  if (writer_ == nullptr) {
    throw Fenrik::Exception(Fenrik::formatString(
        "{} cannot be changed: the state database is open for reading", entity.path()));
  }
  StateRecord record;
  record.key = StateKey::of(entity.path().view());
  textIs(record.path, entity.path().view(), "the path");
  textIs(record.typeName, entity.typeName(), "the type name");
  const auto value = entity.value();
  FENRIK_ASSERT(value.size() <= record.value.size());
  std::ranges::copy(value, record.value.begin());
  record.valueSize = static_cast<std::uint32_t>(value.size());
  Words words;
  Layout::toWords(record, words.data());
  writer_->set(words);
  file_->ring();
}

bool EntityManager::entityDel(const Fenrik::String& path) {
  FENRIK_ASSERT(writer_ != nullptr);
  entities_.erase(path);
  const bool removed = writer_->remove(keyWordsOf(path));
  if (removed) file_->ring();
  return removed;
}

}  // namespace Stavro
