#include "OvmResourceTable/Resource.h"

#include <utility>

#include "OvmResourceTable/ResourceRefusedException.h"

namespace OvmResourceTable {

ResourceRefusedException::~ResourceRefusedException() = default;
Account::~Account() = default;
ResourceUse::~ResourceUse() = default;
Resource::OldValue::~OldValue() = default;

/// Without recursion: a resource that changed often while the hardware stood still has many.
Resource::~Resource() {
  while (oldValues != nullptr) oldValues = Fenrik::Ptr<OldValue>(std::move(oldValues->next));
  while (uses != nullptr) uses = Fenrik::Ptr<ResourceUse>(std::move(uses->next));
}

}  // namespace OvmResourceTable
