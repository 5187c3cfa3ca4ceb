#pragma once

#include "Fenrik/ValueType.h"
#include "Kiv/StrepFormatter.h"
#include "OrderedTable/FlatShape.h"
#include "OrderedTable/TableEntry.h"

namespace Asic {

/// What is in a key, or in an entry: flat values one behind the other.
struct FlatValueShape {
  FlatShape first;
  /// Of an entry with resource keys; otherwise empty.
  FlatShape second;
  std::size_t secondOffset;
  const void* defaultValue;
};

/// Values of `FlatValueShape`, which `ValueType::detail` gives.
QUARNBASTIL_EXPORT extern const Kiv::ValueOps kFlatValueOps;

template <class T>
concept FlatInspected = (Drift::Described<T> && !Kiv::TextValue<T>) || ClientEntry<T>;

}  // namespace Asic

template <Asic::FlatInspected T>
struct Kiv::ValueTypeFor<T> {
  static const void* shape() {
    static const T value{};
    static const Asic::FlatValueShape shape = [] {
      if constexpr (Asic::ClientEntry<T>) {
        return Asic::FlatValueShape{Asic::flatShapeOf<typename T::LogEntry>(),
                                    Asic::flatShapeOf<typename T::ResourceKeys>(),
                                    sizeof(typename T::LogEntry), &value};
      } else {
        return Asic::FlatValueShape{Asic::flatShapeOf<T>(), {}, 0, &value};
      }
    }();
    return &shape;
  }
  static constexpr ValueType kValue{&Asic::kFlatValueOps, bareTypeName<T>(), sizeof(T), nullptr,
                                    &shape};
};
