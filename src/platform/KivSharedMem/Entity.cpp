#include "KivSharedMem/Entity.h"

#include <map>

namespace KivSharedMem {

Entity::Entity(Fenrik::String path, std::unique_ptr<Drift::DriftFile> file)
    : path_(std::move(path)),
      file_(std::move(file)),
      control_(Fenrik::ptrIsImpl<KivDrift::CollectionControl>(*file_)) {}

Entity::~Entity() = default;

namespace {

std::map<std::string_view, EntityType>& types() {
  static std::map<std::string_view, EntityType> all;
  return all;
}

}  // namespace

EntityRegistration::EntityRegistration(const EntityType& type) {
  types().emplace(type.typeName, type);
}

const EntityType* EntityRegistration::find(std::string_view typeName) {
  const auto found = types().find(typeName);
  return found == types().end() ? nullptr : &found->second;
}

}  // namespace KivSharedMem
