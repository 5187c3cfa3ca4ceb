#include "Kiv/Entity.h"

#include <algorithm>
#include <vector>

#include "Fenrik/Assert.h"

namespace Kiv {

namespace {

struct Singleton {
  std::string_view typeName;
  KivType type;
  EntitySingleton::Make make;
  Fenrik::Ptr<Entity> object;
};

/// Never destroyed, because objects of the singletons may be used after the library's statics are
/// gone.
std::vector<Singleton>& singletons() {
  static auto* const all = new std::vector<Singleton>;
  return *all;
}

}  // namespace

Entity::~Entity() = default;

void Entity::handleParent(const Fenrik::Ptr<Entity>&) {}

Fenrik::Ptr<Entity> Entity::singletonExists(const Fenrik::String& typeName) {
  const auto found = std::ranges::find(singletons(), typeName.view(), &Singleton::typeName);
  return found == singletons().end() ? nullptr : found->object;
}

Fenrik::Ptr<Entity> Entity::singletonIs(KivType type) {
  const auto found = std::ranges::find(singletons(), type, &Singleton::type);
  FENRIK_ASSERT(found != singletons().end());
  if (found->object == nullptr) found->object = found->make();
  return found->object;
}

EntitySingleton::EntitySingleton(std::string_view typeName, KivType type, Make make) {
  singletons().push_back({typeName, type, make, nullptr});
}

}  // namespace Kiv
