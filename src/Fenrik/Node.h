#pragma once

#include <cstdint>

#include "Fenrik/Atomic.h"
#include "Fenrik/Export.h"
#include "Fenrik/KivType.h"
#include "Fenrik/ThreadControl.h"

namespace Fenrik {

class QUARNBASTIL_EXPORT Publisher;
class QUARNBASTIL_EXPORT Node;

namespace Impl {

/// Destructions of nodes in progress on a thread. A node's destruction releases the nodes it holds,
/// so destructions nest as deeply as a chain of pointers is long. Beyond depth `kEndsMost` they are
/// queued until the outermost one is complete, which limits the stack to a few KiB for any chain.
struct NodeEnds {
  static constexpr unsigned kEndsMost = 64;

  unsigned depth;
  struct Waiting* waiting;
};
QUARNBASTIL_EXPORT extern thread_local constinit NodeEnds nodeEnds
    __attribute__((tls_model("initial-exec")));

QUARNBASTIL_EXPORT void nodeEndLater(Node* node);
QUARNBASTIL_EXPORT void nodeEndsWaiting();

/// Destroys a node after its last reference was dropped; without a virtual call for a final class.
template <class T>
[[gnu::always_inline]] inline void nodeEnd(T* node) {
  NodeEnds& ends = nodeEnds;
  if (ends.depth == NodeEnds::kEndsMost) [[unlikely]]
    return nodeEndLater(node);
  ++ends.depth;
  node->lastUserGone();
  if (--ends.depth == 0 && ends.waiting != nullptr) [[unlikely]]
    nodeEndsWaiting();
}

}  // namespace Impl

/// Flags stored in the word of the use count.
enum class NodeFlag : std::uint32_t {
  /// The subscription to the watched object is active. Cleared first in every destruction.
  hasNotificationActive = 0x20000000,
  /// Set while the subscription changes; a reactor ignores changes meanwhile.
  kivDoZombieReactors = 0x40000000,
};

/// Base class of all objects that outlive a call: use count, two flags, virtual destruction.
///
/// Threads: a node belongs to one thread. Its use count may be changed by all threads if
/// `ThreadControl::tsp_` is set.
///
/// I1. A new node has the use count 1, for the pointer returned by its factory.
/// I2. Changes of the count do not affect the flag bits.
/// I3. `lastUserGone()` is called once, when the count reaches zero.
class QUARNBASTIL_EXPORT Node {
 public:
  /// Bits of the word that hold the use count; the other two are `NodeFlag`s.
  static constexpr std::uint32_t kUseCountMask = 0x9fffffff;

  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  virtual ~Node() { nodeFlagSet(NodeFlag::hasNotificationActive, false); }

  /// Called when the last reference is dropped; in a long chain of destructions, when those in
  /// progress are complete. Deletes the node by default.
  virtual void lastUserGone();

  /// The publisher of this object's changes, or null.
  virtual const Publisher* publisher() const;

  /// Module and index of the object's class.
  virtual Kiv::KivType typeData() const;

  /// Adds `users` references and returns the new use count without flags. One atomic step per
  /// reference with threads on, otherwise one plain addition.
  [[gnu::always_inline]] std::uint32_t incUseCount(std::uint32_t users = 1) const noexcept {
    if (ThreadControl::tsp_) [[unlikely]]
      return incUseCountShared(users);
    useCountAndFlags_ += users;
    return useCountAndFlags_ & kUseCountMask;
  }

  /// Drops one reference; destroys the node if it was the last.
  [[gnu::always_inline]] void decUseImpl() const {
    if (decUseCount()) lastReferenceGone();
  }

  /// Drops one reference. Returns true if it was the last; the caller then destroys the node.
  [[gnu::always_inline]] bool decUseCount() const noexcept {
    if (ThreadControl::tsp_) [[unlikely]]
      return decUseCountShared();
    const std::uint32_t word = useCountAndFlags_ - 1;
    if ((word & kUseCountMask) != 0) [[likely]] {
      useCountAndFlags_ = word;
      return false;
    }
    useCountAndFlags_ =
        word;  // A dead store where the destructor is inlined; the compiler drops it.
    return true;
  }

  std::uint32_t useCount() const noexcept {
    return AtomicRef(useCountAndFlags_).loadRelaxed() & kUseCountMask;
  }

  bool nodeFlag(NodeFlag flag) const noexcept {
    return (AtomicRef(useCountAndFlags_).loadRelaxed() & static_cast<std::uint32_t>(flag)) != 0;
  }

  /// Sets or clears one flag without changing the use count.
  void nodeFlagSet(NodeFlag flag, bool value) const noexcept {
    const auto bit = static_cast<std::uint32_t>(flag);
    if (ThreadControl::tsp_) [[unlikely]] {
      const AtomicRef word(useCountAndFlags_);
      value ? word.fetchOr(bit) : word.fetchAnd(~bit);
      return;
    }
    useCountAndFlags_ = value ? (useCountAndFlags_ | bit) : (useCountAndFlags_ & ~bit);
  }

 protected:
  Node() noexcept = default;

 private:
  void lastReferenceGone() const;

  [[gnu::cold]] std::uint32_t incUseCountShared(std::uint32_t users) const noexcept;
  [[gnu::cold]] bool decUseCountShared() const noexcept;

  /// Use count in the bits of `kUseCountMask`, and the flags.
  mutable std::uint32_t useCountAndFlags_ = 1;
};

}  // namespace Fenrik
