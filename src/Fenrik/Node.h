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

/// The ends of nodes under way on one thread. A node that ends drops what it holds, so ends nest,
/// as deep as a chain of pointers is long: what lies deeper than `kEndsMost` waits in a list until
/// the outermost end is done. That keeps a chain of any length within a few KiB of stack.
struct NodeEnds {
  static constexpr unsigned kEndsMost = 64;

  unsigned depth;
  struct Waiting* waiting;
};
QUARNBASTIL_EXPORT extern thread_local constinit NodeEnds nodeEnds
    __attribute__((tls_model("initial-exec")));

QUARNBASTIL_EXPORT void nodeEndLater(Node* node);
QUARNBASTIL_EXPORT void nodeEndsWaiting();

/// Ends a node whose last reference has gone; a final class's without a virtual call.
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

/// Flags of a node that share the word of its use count.
enum class NodeFlag : std::uint32_t {
  /// The object's subscription to what it watches is active. Every destructor clears it first.
  hasNotificationActive = 0x20000000,
  /// Held while a subscription changes: a reactor that sees it set does not act.
  kivDoZombieReactors = 0x40000000,
};

/// Base of every object that outlives a call: a use count, two flags and a virtual end of life.
///
/// Threads: a node belongs to one thread, its use count to every thread when
/// `ThreadControl::tsp_` is set.
///
/// I1. A new node has the use count 1, owned by the pointer that its factory returns.
/// I2. The flag bits survive every change of the count and are no part of it.
/// I3. `lastUserGone()` is called once, by the drop that takes the count to zero.
class QUARNBASTIL_EXPORT Node {
 public:
  /// The bits of the shared word that count users; the two others are `NodeFlag`s.
  static constexpr std::uint32_t kUseCountMask = 0x9fffffff;

  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  virtual ~Node() { nodeFlagSet(NodeFlag::hasNotificationActive, false); }

  /// Called when the last reference has gone, or, in a long chain of such ends, when those that led
  /// to it are done. The default deletes the node.
  virtual void lastUserGone();

  /// The publisher that announces this object's changes, or null if it has none.
  virtual const Publisher* publisher() const;

  /// Module and index of the object's class.
  virtual Kiv::KivType typeData() const;

  /// Adds `users` references and returns the new use count without the flags. One atomic step for
  /// each reference when threads are on, one plain addition otherwise.
  [[gnu::always_inline]] std::uint32_t incUseCount(std::uint32_t users = 1) const noexcept {
    if (ThreadControl::tsp_) [[unlikely]]
      return incUseCountShared(users);
    useCountAndFlags_ += users;
    return useCountAndFlags_ & kUseCountMask;
  }

  /// Drops one reference and ends the node with the last one.
  [[gnu::always_inline]] void decUseImpl() const {
    if (decUseCount()) lastReferenceGone();
  }

  /// Drops one reference; true if it was the last. The caller then ends the node.
  [[gnu::always_inline]] bool decUseCount() const noexcept {
    if (ThreadControl::tsp_) [[unlikely]]
      return decUseCountShared();
    const std::uint32_t word = useCountAndFlags_ - 1;
    if ((word & kUseCountMask) != 0) [[likely]] {
      /// Users under `kUseCountMask`, and the flags.
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

  /// Sets or clears one flag and leaves the use count as it is.
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

  mutable std::uint32_t useCountAndFlags_ = 1;
};

}  // namespace Fenrik
