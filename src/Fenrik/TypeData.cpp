#include "Fenrik/TypeData.h"

#include <algorithm>
#include <mutex>

#include "Fenrik/Exception.h"
#include "OvSlab/OvSlab.h"

namespace Kiv {

namespace {

using NodePtr = Fenrik::Ptr<Fenrik::Node>;

/// The name of the class of a node.
std::string_view classOf(const Fenrik::Node& node) {
  const TypeFacts* const facts = node.typeData().facts();
  return facts != nullptr ? facts->name : "Node";
}

/// An iterator made by `genericIfIterator`; its storage follows.
struct alignas(std::max_align_t) GenericIterator {
  const IteratorFacts* facts;

  void* at() noexcept { return this + 1; }
  const void* at() const noexcept { return this + 1; }
};

const GenericIterator& generic(const void* iterator) {
  return *static_cast<const GenericIterator*>(iterator);
}

}  // namespace

constinit const ValueOps Impl::kNodePtrOps{
    .form = ValueForm::node,
    .construct = [](const ValueType&, void* at) { ::new (at) NodePtr; },
    .copy = [](const ValueType&, void* at,
               const void* from) { ::new (at) NodePtr(*static_cast<const NodePtr*>(from)); },
    .destroy = [](const ValueType&, void* at) noexcept { static_cast<NodePtr*>(at)->~NodePtr(); },
    .textAppend =
        [](const ValueType&, const void* value, std::string& text) {
          const NodePtr& node = *static_cast<const NodePtr*>(value);
          text += node != nullptr ? classOf(*node) : "null";
        },
    .parse = nullptr};

AnyValue& AnyValue::operator=(AnyValue&& other) noexcept {
  std::swap(type_, other.type_);
  std::swap(storage_, other.storage_);
  std::swap(filled_, other.filled_);
  return *this;
}

void AnyValue::construct() {
  clear();
  type_->ops->construct(*type_, storage());
  filled_ = true;
}

void AnyValue::clear() noexcept {
  if (storage_ != nullptr && std::exchange(filled_, false)) {
    type_->ops->destroy(*type_, storage());
  }
}

const Fenrik::Node* AnyValue::node() const noexcept {
  if (!filled_ || type_->ops->form != ValueForm::node) return nullptr;
  return static_cast<const NodePtr*>(get())->get();
}

std::string AnyValue::text() const {
  std::string text;
  if (filled_) type_->ops->textAppend(*type_, get(), text);
  return text;
}

const ValueType& KivAttr::resolved(TypeRef ref) const {
  if (ref.role == 0) return *ref.type;
  for (KivType type = type_;; type = type.base()) {
    if (const auto* const roles = type.facts()->roles) return *roles[ref.role];
  }
}

unsigned char inspectOperation(KivType type, void* out, void* object, Fenrik::FieldId fieldId,
                               unsigned char op, void* arg, void* arg2) {
  const AttributeFact* const row = type.attribute(fieldId);
  if (row == nullptr) return kNoSuchAttribute;
  const AttributeAccess* const access = row->access;
  if (access == nullptr) return kNotAllowed;
  if (op == kInspectRead && access->read != nullptr) {
    access->read(object, out);
  } else if (op == kInspectWrite && access->write != nullptr) {
    access->write(object, arg);
  } else if (op == kInspectCall && access->call != nullptr) {
    void* const few[] = {arg, arg2};
    access->call(object, out, access->arguments.size() > 2 ? static_cast<void* const*>(arg) : few);
  } else {
    return kNotAllowed;
  }
  return kInspected;
}

void* genericIfIterator(KivType type, void* object, void** key, Fenrik::FieldId fieldId,
                        const void** ops) {
  const AttributeFact* const row = type.attribute(fieldId);
  if (row == nullptr || row->access == nullptr || row->access->iterator == nullptr) return nullptr;
  const IteratorFacts& facts = *row->access->iterator;
  constexpr auto kPattern = OvSlab::SlabAllocationPattern::perWrite;
  const auto size = static_cast<unsigned>(sizeof(GenericIterator) + facts.size);
  void* const storage = OvSlab::slabAllocOrStdMalloc(size, kPattern);
  if (storage == nullptr) return nullptr;
  auto* const iterator = ::new (storage) GenericIterator{&facts};
  facts.start(object, key != nullptr ? *key : nullptr, iterator->at());
  *ops = &kIteratorOperations;
  return iterator;
}

constinit const IteratorOperations kIteratorOperations{
    .iterObj = [](KivAttr, const void* iterator,
                  void* out) { generic(iterator).facts->value(generic(iterator).at(), out); },
    .iterKey = [](KivAttr, const void* iterator,
                  void* out) { generic(iterator).facts->key(generic(iterator).at(), out); },
    .iterNonnull =
        [](KivAttr, const void* iterator) {
          return generic(iterator).facts->nonnull(generic(iterator).at());
        },
    .iterInc =
        [](KivAttr, void* iterator) {
          auto* const it = static_cast<GenericIterator*>(iterator);
          it->facts->increment(it->at());
        },
    .iterDel =
        [](KivAttr, void* iterator) {
          auto* const it = static_cast<GenericIterator*>(iterator);
          it->facts->stop(it->at());
          OvSlab::slabFreeOrStdFree(it);
        }};

}  // namespace Kiv

namespace Fenrik {
namespace {

struct Modules {
  std::mutex mutex;
  std::vector<const Kiv::ModuleFacts*> loaded;
};

/// Never destroyed: libraries are unloaded after the statics of this one.
Modules& modules() {
  static auto* const modules = new Modules;
  return *modules;
}

}  // namespace

void ModuleInspectData::loaded(const Kiv::ModuleFacts& module) {
  const std::lock_guard lock(modules().mutex);
  modules().loaded.push_back(&module);
}

void ModuleInspectData::unloaded(const Kiv::ModuleFacts& module) noexcept {
  const std::lock_guard lock(modules().mutex);
  std::erase(modules().loaded, &module);
}

std::vector<const Kiv::ModuleFacts*> ModuleInspectData::all() {
  const std::lock_guard lock(modules().mutex);
  return modules().loaded;
}

}  // namespace Fenrik
