#include "Kiv/System.h"

#include <chrono>

namespace Kiv {

double System::currentTimeUtc() noexcept {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

}  // namespace Kiv
