#include "OrderedTable/ToyFamily.h"

namespace QuarnBastil {
template class SwTable<ToyFamily>;
template class EntryLog<ToyFamily>;
template class Interface<ToyFamily>;
template class SwTable<SmallToyFamily>;
template class EntryLog<SmallToyFamily>;
template class Interface<SmallToyFamily>;
}  // namespace QuarnBastil
