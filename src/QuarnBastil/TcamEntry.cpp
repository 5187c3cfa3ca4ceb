#include "QuarnBastil/TcamEntry.h"

namespace QuarnBastil {

template class SwTable<TcamEntryFamily>;
template class EntryLog<TcamEntryFamily>;
template class Interface<TcamEntryFamily>;

}  // namespace QuarnBastil
