#include "Kiv/StrepFormatter.h"

namespace KivFenrik::Impl {

Fenrik::String valueToStrep(Kiv::KivType type, const void* value) {
  const Kiv::TypeFacts* facts = type.facts();
  if (facts == nullptr) return "?";
  if (facts->textAppend == nullptr) return facts->name;
  std::string text;
  facts->textAppend(value, text);
  return Fenrik::String(std::move(text));
}

}  // namespace KivFenrik::Impl
