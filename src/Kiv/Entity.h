#pragma once

#include <string_view>

#include "Fenrik/Node.h"
#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"

namespace Kiv {

/// An object that has its place in the agent's tree of objects.
class QUARNBASTIL_EXPORT Entity : public Fenrik::Node {
 public:
  ~Entity() override;

  /// Told when the object gets a parent; most objects need not know.
  virtual void handleParent(const Fenrik::Ptr<Entity>& parent);

  /// The process's one object of a class, or null while there is none. `typeName` is the class's
  /// full name.
  ///
  /// Threads: the table thread.
  static Fenrik::Ptr<Entity> singletonExists(const Fenrik::String& typeName);
  /// Makes it, if it is not there, and returns it. REQUIRES: an `EntitySingleton` of that type.
  static Fenrik::Ptr<Entity> singletonIs(KivType type);
};

/// Declares a class of which a process has one object at most, which lives as long as the process.
/// Meant for objects of static storage.
class QUARNBASTIL_EXPORT EntitySingleton {
 public:
  using Make = Fenrik::Ptr<Entity> (*)();

  EntitySingleton(std::string_view typeName, KivType type, Make make);
};

}  // namespace Kiv
