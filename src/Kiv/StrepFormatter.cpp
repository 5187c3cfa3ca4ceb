#include "Kiv/StrepFormatter.h"

#include <string>

namespace KivFenrik::Impl {

Fenrik::String valueToStrep(Kiv::KivType type, const void* value) {
  const Kiv::TypeFacts* facts = type.facts();
  if (facts == nullptr) return "?";
  if (facts->textAppend == nullptr) return Fenrik::String(facts->name);
  std::string text;
  facts->textAppend(value, text);
  return text;
}

}  // namespace KivFenrik::Impl
