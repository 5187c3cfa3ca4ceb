#include "Fenrik/Node.h"

#include <new>
#include <utility>

#include "OvSlab/OvSlab.h"

namespace Fenrik {

bool ThreadControl::tsp_ = false;

namespace Impl {

thread_local constinit NodeEnds nodeEnds{0, nullptr};

/// Allocated from the slab, so that the thread has nothing to destroy at its end.
struct Waiting {
  Node* node;
  Waiting* next;
};

void nodeEndLater(Node* node) {
  void* const storage = OvSlab::slabAlloc(sizeof(Waiting));
  nodeEnds.waiting = ::new (storage) Waiting{node, nodeEnds.waiting};
}

void nodeEndsWaiting() {
  ++nodeEnds.depth;
  while (Waiting* const waiting = nodeEnds.waiting) {
    nodeEnds.waiting = waiting->next;
    Node* const node = waiting->node;
    OvSlab::slabFree(waiting, typeid(Waiting));
    node->lastUserGone();
  }
  --nodeEnds.depth;
}

}  // namespace Impl

void Node::lastUserGone() { delete this; }

std::uint32_t Node::incUseCountShared(std::uint32_t users) const noexcept {
  std::uint32_t word = 0;
  for (; users != 0; --users) word = AtomicRef(useCountAndFlags_).fetchAdd(1) + 1;
  return word & kUseCountMask;
}

bool Node::decUseCountShared() const noexcept {
  return ((AtomicRef(useCountAndFlags_).fetchSub(1) - 1) & kUseCountMask) == 0;
}

void Node::lastReferenceGone() const { Impl::nodeEnd(const_cast<Node*>(this)); }

const Publisher* Node::publisher() const { return nullptr; }

Kiv::KivType Node::typeData() const { return {}; }

}  // namespace Fenrik
