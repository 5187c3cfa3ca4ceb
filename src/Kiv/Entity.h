#pragma once

#include <string_view>

#include "Fenrik/Node.h"
#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"

namespace Kiv {

/// An object with a place in the agent's object tree.
class QUARNBASTIL_EXPORT Entity : public Fenrik::Node {
 public:
  ~Entity() override;

  /// Called when the object gets a parent. Does nothing by default.
  virtual void handleParent(const Fenrik::Ptr<Entity>& parent);

  /// The process's only object of a class, or null if it does not exist yet. `typeName` is the full
  /// name of the class.
  ///
  /// Threads: the table thread.
  static Fenrik::Ptr<Entity> singletonExists(const Fenrik::String& typeName);
  /// As above, creating the object if it does not exist. REQUIRES: an `EntitySingleton` of that
  /// type.
  static Fenrik::Ptr<Entity> singletonIs(KivType type);
};

/// Declares a class with at most one object per process, which is never destroyed. Intended for
/// static objects.
class QUARNBASTIL_EXPORT EntitySingleton {
 public:
  using Make = Fenrik::Ptr<Entity> (*)();

  EntitySingleton(std::string_view typeName, KivType type, Make make);
};

}  // namespace Kiv
