#include "Fenrik/Exception.h"

#include "Fenrik/Format.h"

namespace Fenrik {

Exception::~Exception() = default;
MutatorException::~MutatorException() = default;
MutatorArgNullPointerException::~MutatorArgNullPointerException() = default;
MutatorReinstantiatingException::~MutatorReinstantiatingException() = default;
CorruptionDetectedException::~CorruptionDetectedException() = default;

}  // namespace Fenrik

namespace Kiv {
namespace {

/// "TcamEntrySwTable::EntryHandle.swTable (module TcamEntrySwTable, type 0, attribute 515)", with
/// question marks for unknown parts.
Fenrik::String attributePlace(KivType type, Fenrik::FieldId fieldId) {
  const TypeFacts* facts = type.facts();
  const AttributeFact* attribute = type.attribute(fieldId);
  return Fenrik::formatString(
      "{}.{} (module {}, type {}, attribute {})", facts != nullptr ? facts->name : "?",
      attribute != nullptr ? attribute->name : "?", type.valid() ? type.module()->name : "?",
      type.index(), fieldId.number());
}

}  // namespace

void throwMutatorArgNullPointerException(const ModuleFacts* module, std::uint8_t typeIndex,
                                         Fenrik::FieldId fieldId) {
  const KivType type(module, typeIndex);
  throw Fenrik::MutatorArgNullPointerException(
      "null pointer given to the mutator of " + attributePlace(type, fieldId) +
          ": the attribute holds objects only, give it one or use its Del operation",
      type, fieldId);
}

void Impl::throwMutatorReinstantiating(const ModuleFacts* module, std::uint8_t typeIndex,
                                       Fenrik::FieldId fieldId) {
  const KivType type(module, typeIndex);
  throw Fenrik::MutatorReinstantiatingException(
      attributePlace(type, fieldId) +
          " exists already and may be made only once: use the object that is there",
      type, fieldId);
}

}  // namespace Kiv
