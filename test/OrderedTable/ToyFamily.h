#pragma once

#include "Support/FamilyMemory.h"
#include "outside/ToyFamily.h"

using Toy::SmallToyFamily;
using Toy::ToyFamily;

template <class F>
requires std::same_as<typename F::Key, Toy::Key>
struct Support::Numbers<F> {
  static Toy::Key key(Key key) { return Toy::Key(key); }
  static Key number(const Toy::Key& key) { return key.number; }
  static void valueIs(auto& entry, Value value) { entry.value = value; }
  static Value value(const auto& entry) { return entry.value; }
};
