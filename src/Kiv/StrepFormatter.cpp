#include "Kiv/StrepFormatter.h"

#include <string>

#include "Fenrik/TypeData.h"

namespace KivFenrik::Impl {
namespace {

/// Members of a collection are counted up to this number.
constexpr unsigned kCounted = 1000;

void appendCount(const Kiv::IteratorFacts& facts, void* object, std::string& text) {
  std::string storage(facts.size + alignof(std::max_align_t), 0);
  void* iterator = storage.data();
  std::size_t room = storage.size();
  std::align(alignof(std::max_align_t), facts.size, iterator, room);
  facts.start(object, nullptr, iterator);
  unsigned count = 0;
  while (count != kCounted && facts.nonnull(iterator)) {
    facts.increment(iterator);
    ++count;
  }
  text += fmt::format("[{}{}]", count, facts.nonnull(iterator) ? " or more" : "");
  facts.stop(iterator);
}

/// Appends `name: value` for each attribute that is no function.
void appendAttributes(Kiv::KivType whole, Kiv::KivType type, void* object, std::string& text) {
  if (type.base().valid()) appendAttributes(whole, type.base(), object, text);
  for (const Kiv::AttributeFact& row : type.facts()->attributes) {
    const Kiv::KivAttr attribute(whole, row.fieldId);
    const Kiv::AttributeAccess* const access = attribute.access();
    if (access == nullptr || (access->read == nullptr && access->iterator == nullptr)) continue;
    text += fmt::format("{}{}: ", text.ends_with('{') ? "" : ", ", row.name);
    if (access->iterator != nullptr) {
      appendCount(*access->iterator, object, text);
      continue;
    }
    Kiv::AnyValue value(attribute.valueType());
    access->read(object, value.storage());
    value.filled();
    text += value.text();
  }
}

}  // namespace

Fenrik::String valueToStrep(Kiv::KivType type, const void* value) {
  const Kiv::TypeFacts* const facts = type.facts();
  if (facts == nullptr) return "?";
  std::string text;
  if (facts->textAppend != nullptr) {
    facts->textAppend(value, text);
  } else {
    text = fmt::format("{}{{", facts->name);
    // Reading an attribute changes nothing.
    appendAttributes(type, type, const_cast<void*>(value), text);
    text += '}';
  }
  return Fenrik::String(text);
}

}  // namespace KivFenrik::Impl
