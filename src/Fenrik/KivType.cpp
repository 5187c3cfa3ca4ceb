#include "Fenrik/KivType.h"

#include <algorithm>

namespace Kiv {

const TypeFacts* KivType::facts() const noexcept {
  return module_ != nullptr && index_ < module_->types.size() ? &module_->types[index_] : nullptr;
}

namespace {

template <class Predicate>
const AttributeFact* findAttribute(const TypeFacts* facts, Predicate predicate) noexcept {
  if (facts == nullptr) return nullptr;
  const auto found = std::ranges::find_if(facts->attributes, predicate);
  return found == facts->attributes.end() ? nullptr : &*found;
}

}  // namespace

const AttributeFact* KivType::attribute(Fenrik::FieldId fieldId) const noexcept {
  return findAttribute(facts(), [=](const AttributeFact& row) { return row.fieldId == fieldId; });
}

const AttributeFact* KivType::attribute(std::string_view name) const noexcept {
  return findAttribute(facts(), [=](const AttributeFact& row) { return row.name == name; });
}

}  // namespace Kiv
