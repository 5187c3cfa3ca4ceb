#include "Fenrik/KivType.h"

#include <algorithm>

namespace Kiv {

const TypeFacts* KivType::facts() const noexcept {
  return module_ != nullptr && index_ < module_->types.size() ? &module_->types[index_] : nullptr;
}

KivType KivType::base() const {
  const TypeFacts* const own = facts();
  return own != nullptr && own->base != nullptr ? own->base() : KivType();
}

namespace {

template <class Predicate>
const AttributeFact* findAttribute(KivType type, Predicate predicate) {
  for (const TypeFacts* facts; (facts = type.facts()) != nullptr; type = type.base()) {
    const auto found = std::ranges::find_if(facts->attributes, predicate);
    if (found != facts->attributes.end()) return &*found;
  }
  return nullptr;
}

}  // namespace

const AttributeFact* KivType::attribute(Fenrik::FieldId fieldId) const {
  return findAttribute(*this, [=](const AttributeFact& row) { return row.fieldId == fieldId; });
}

const AttributeFact* KivType::attribute(std::string_view name) const {
  return findAttribute(*this, [=](const AttributeFact& row) { return row.name == name; });
}

}  // namespace Kiv
