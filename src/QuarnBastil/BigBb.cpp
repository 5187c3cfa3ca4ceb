#include "QuarnBastil/BigBb.h"

namespace QuarnBastil {

template class SwTable<BigBbFamily>;
template class EntryLog<BigBbFamily>;
template class Interface<BigBbFamily>;

}  // namespace QuarnBastil
