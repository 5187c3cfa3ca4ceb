#pragma once

#include "OrderedTable/TableCore.h"

namespace Asic {

/// The steps of an iteration in the family's own types. `TableCore` implements them.
template <class State, class Table>
class IterStateAccessor {
 public:
  using Key = typename Table::Types::Key;
  using Entry = typename Table::Types::Entry;

  explicit IterStateAccessor(State* iterState) noexcept : iterState_(iterState) {}

  /// A null table yields a null state.
  static Fenrik::Ptr<State> initIterState(const Table* table) {
    if (table == nullptr) return nullptr;
    auto state = Fenrik::ptrIsImpl<State>();
    table->core()->initIterState(*state);
    return state;
  }
  static Fenrik::Ptr<State> initIterState(const Table* table, const Key& key) {
    if (table == nullptr) return nullptr;
    auto state = Fenrik::ptrIsImpl<State>();
    table->core()->initIterStateFromKey(*state, &key);
    return state;
  }

  /// Advances by one: returns the next entry, or a default one at the end.
  Entry maybeUpdateCurrentEntry() {
    Entry entry{Key()};
    TableCore::maybeUpdateCurrentEntry(*iterState_, &entry);
    return entry;
  }

 private:
  State* iterState_;
};

}  // namespace Asic
