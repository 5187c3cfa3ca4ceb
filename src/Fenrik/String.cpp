#include "Fenrik/String.h"

namespace Fenrik::Impl {

template class StringCommon<char>;

}  // namespace Fenrik::Impl
